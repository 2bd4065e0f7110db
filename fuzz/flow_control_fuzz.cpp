// Events from the controller while commands wait, of any content but of the right length: an event
// that is not ends the process by design.
#include <android/log.h>

#include "hci/packet.h"
#include "hci_flow_control.h"

using android::hardware::hidl_vec;
using android::hardware::bluetooth::hci::HciEventWatcher;
using android::hardware::bluetooth::hci::HciFlowControl;

namespace {

class Watcher final : public HciEventWatcher {
 public:
  Watcher(uint8_t code, uint16_t opcode) : HciEventWatcher("fuzz", code, opcode) {}
  bool OnEventReceive(const hidl_vec<uint8_t>& event) override { return event.size() % 2 == 0; }
};

// The shortest events that hold an opcode.
size_t MinimumSize(uint8_t code) {
  return code == 0x0E ? 5 : code == 0x0F ? 6 : code == 0x19 ? 4 : 2;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
  const auto nothing = [](const hidl_vec<uint8_t>&) {};
  const auto flow = HciFlowControl::Create(
      {nothing, nothing, nothing, nothing},
      {[](uint8_t, const uint8_t*, size_t length, bool) { return length; }, [] {}});
  flow->Connect([](const auto&) {});
  Watcher any(0x0E, 0), one(0x0E, 0x0C03), vendor(0xFF, 0);
  for (HciEventWatcher* watcher : {&any, &one, &vendor}) flow->RegisterEventWatcher(watcher);
  const uint8_t command[] = {0x03, 0x0C, 0x00};
  size_t at = 0;
  while (at + 2 <= size) {
    const size_t length = std::min<size_t>(2u + data[at + 1], size - at);
    hidl_vec<uint8_t> event(data + at, data + at + length);
    event[1] = static_cast<uint8_t>(length - 2);
    at += length;
    flow->Send(1, command, event.size() % 4);
    if (length >= MinimumSize(event[0])) flow->OnHciEventReady(event, nothing);
  }
  flow->Halt();
  return 0;
}
