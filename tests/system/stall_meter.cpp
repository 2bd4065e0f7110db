#include "system/stall_meter.h"

#include <algorithm>

namespace test {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPeriod{5}, kWorthNoting{10};

milliseconds Length(StallMeter::Clock::time_point begin, StallMeter::Clock::time_point end) {
  return std::chrono::duration_cast<milliseconds>(end - begin);
}

}  // namespace

StallMeter::StallMeter() : under_way_(Clock::now()), thread_([this] { Run(); }) {}

StallMeter::~StallMeter() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  thread_.join();
}

milliseconds StallMeter::Longest(Clock::time_point from, Clock::time_point to) {
  const std::lock_guard<std::mutex> guard(lock_);
  std::vector<Stall> stalls = stalls_;
  stalls.push_back({under_way_, Clock::now()});
  milliseconds longest{0};
  for (const Stall& stall : stalls) {
    if (stall.end >= from && stall.begin <= to) {
      longest = std::max(longest, Length(stall.begin, stall.end));
    }
  }
  return longest;
}

void StallMeter::Run() {
  for (;;) {
    std::this_thread::sleep_for(kPeriod);
    pty_.TakeWritten();  // writes a mark at the host's end and waits until it has come
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> guard(lock_);
    if (stop_) return;
    if (Length(under_way_, now) >= kPeriod + kWorthNoting) stalls_.push_back({under_way_, now});
    under_way_ = now;
  }
}

}  // namespace test
