// One event through HciFlowControl, with 0, 8 or 64 watchers registered; where there are any, the
// last one matches. Logging is off.
#include <android-base/logging.h>
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "hci_flow_control.h"

namespace {

using namespace android::hardware::bluetooth::hci;  // NOLINT(build/namespaces)
using android::hardware::hidl_vec;

class Watcher final : public HciEventWatcher {
 public:
  explicit Watcher(uint16_t opcode) : HciEventWatcher("bench", kEventCommandComplete, opcode) {}
  bool OnEventReceive(const hidl_vec<uint8_t>& event) override {
    benchmark::DoNotOptimize(event.data());
    return false;
  }
};

void BM_Event(benchmark::State& state) {
  android::base::SetMinimumLogSeverity(android::base::FATAL);
  size_t delivered = 0;
  const PacketReceiver deliver = [&](const auto&) { ++delivered; };
  const auto flow = HciFlowControl::Create(
      {deliver, deliver, deliver, deliver},
      {[](uint8_t, const uint8_t*, size_t length, bool) { return length; }, [] {}});
  flow->Connect([](const auto&) {});
  std::vector<std::unique_ptr<Watcher>> watchers;
  constexpr uint16_t kMatching = 0x0C03;
  for (auto left = state.range(0); left > 0; --left) {
    const auto opcode = left == 1 ? kMatching : static_cast<uint16_t>(0xFC00 + left);
    watchers.push_back(std::make_unique<Watcher>(opcode));
    flow->RegisterEventWatcher(watchers.back().get());
  }
  const hidl_vec<uint8_t> event = {kEventCommandComplete, 4, 1, kMatching & 0xFF,
                                   kMatching >> 8,        0};
  for (auto _ : state) flow->OnHciEventReady(event, deliver);
  for (const auto& watcher : watchers) flow->UnregisterEventWatcher(watcher.get());
  if (delivered != static_cast<size_t>(state.iterations())) state.SkipWithError("events lost");
}
BENCHMARK(BM_Event)->Arg(0)->Arg(8)->Arg(64);

}  // namespace
