// One scope recorded on the hot path (two records), beside the two clock reads that it cannot do
// without, and one recorded by text.
#include <benchmark/benchmark.h>
#include <time.h>

#include "evidence/record.h"

namespace {

using namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug;  // NOLINT(build/namespaces)

std::string Text(const AnchorValues& v) { return "event of " + std::to_string(v[0]) + " bytes"; }

void BM_AnchorPair(benchmark::State& state) {
  for (auto _ : state) {
    const ScopedRecord anchor(AnchorType::kHciEventReceived, Text, {40});
  }
}
BENCHMARK(BM_AnchorPair);

void BM_AnchorPairByText(benchmark::State& state) {
  for (auto _ : state) {
    const ScopedRecord anchor(AnchorType::kPerformInit, "perform_init");
  }
}
BENCHMARK(BM_AnchorPairByText);

void BM_TwoClockReads(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < 2; ++i) {
      timespec now;
      clock_gettime(CLOCK_REALTIME, &now);
      benchmark::DoNotOptimize(now);
    }
  }
}
BENCHMARK(BM_TwoClockReads);

}  // namespace
