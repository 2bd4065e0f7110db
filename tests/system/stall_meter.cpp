#include "system/stall_meter.h"

#include <algorithm>

namespace test {
namespace {
constexpr std::chrono::milliseconds kPeriod{5}, kWorthNoting{10};
}

StallMeter::StallMeter() : thread_([this] { Run(); }) {}

StallMeter::~StallMeter() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  thread_.join();
}

std::chrono::milliseconds StallMeter::Longest(Clock::time_point from, Clock::time_point to) {
  const std::lock_guard<std::mutex> guard(lock_);
  std::chrono::milliseconds longest{0};
  for (const Stall& stall : stalls_) {
    if (stall.end >= from && stall.end - stall.length <= to)
      longest = std::max(longest, stall.length);
  }
  return longest;
}

void StallMeter::Run() {
  for (;;) {
    const Clock::time_point due = Clock::now() + kPeriod;
    std::this_thread::sleep_until(due);
    const Clock::time_point now = Clock::now();
    const auto length = std::chrono::duration_cast<std::chrono::milliseconds>(now - due);
    const std::lock_guard<std::mutex> guard(lock_);
    if (stop_) return;
    if (length >= kWorthNoting) stalls_.push_back({now, length});
  }
}

}  // namespace test
