#include "sim/controller/activity_counters.h"

#include <algorithm>

namespace zvk {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// Preamble, access address, header and check value are on the air, too.
constexpr microseconds AirTime(size_t bytes) {
  return microseconds(static_cast<int64_t>(bytes + 14) * 8);
}

}  // namespace

void ActivityCounters::Add(State state, uint64_t entries, microseconds time) {
  Counters& counters = counters_[state];
  counters.entries += entries;
  counters.time += time;
  counters.last_entry = std::chrono::duration_cast<milliseconds>(EventLoop::Clock::now() - start_);
}

// Whatever the radio does, it is active meanwhile and idle afterwards.
void ActivityCounters::Use(State state, uint64_t entries, microseconds time) {
  Add(state, entries, time);
  Add(kActive, entries, time);
  Add(kIdle, entries, microseconds(0));
  busy_ += time;
}

void ActivityCounters::Transmit(size_t bytes) { Use(kTransmitting, 1, AirTime(bytes)); }

void ActivityCounters::Receive(size_t bytes) { Use(kReceiving, 1, AirTime(bytes)); }

void ActivityCounters::StartScan(microseconds interval, microseconds window) {
  StopScan();
  scan_interval_ = std::max(interval, microseconds(1));
  scan_window_ = std::min(window, scan_interval_);
  scan_counted_ = EventLoop::Clock::now();
}

void ActivityCounters::StopScan() {
  CountScan();
  scan_interval_ = microseconds(0);
}

void ActivityCounters::CountScan() {
  if (scan_interval_ == microseconds(0)) return;
  const EventLoop::Time now = EventLoop::Clock::now();
  const auto elapsed = std::chrono::duration_cast<microseconds>(now - scan_counted_);
  scan_counted_ = now;
  const double share =
      static_cast<double>(scan_window_.count()) / static_cast<double>(scan_interval_.count());
  Use(kReceiving, static_cast<uint64_t>(elapsed / scan_interval_) + 1,
      microseconds(static_cast<int64_t>(static_cast<double>(elapsed.count()) * share)));
}

std::array<ActivityCounters::Counters, ActivityCounters::kStates> ActivityCounters::Take() {
  CountScan();
  const EventLoop::Time now = EventLoop::Clock::now();
  const auto elapsed = std::chrono::duration_cast<microseconds>(now - taken_);
  counters_[kIdle].time += std::max(elapsed - busy_, microseconds(0));
  taken_ = now;
  busy_ = microseconds(0);
  const auto taken = counters_;
  for (Counters& counters : counters_) {
    counters.entries = 0;
    counters.time %= milliseconds(1);
  }
  return taken;
}

}  // namespace zvk
