#pragma once

#include <array>
#include <chrono>
#include <cstdint>

#include "sim/base/event_loop.h"

namespace zvk {

// How long the radio idles, is active, transmits and receives, and how often it begins to. It
// receives while it scans, and moves data packets at 1 Mbit/s.
class ActivityCounters {
 public:
  enum State { kIdle, kActive, kTransmitting, kReceiving, kStates };
  struct Counters {
    uint64_t entries = 0;
    std::chrono::microseconds time{0};
    std::chrono::milliseconds last_entry{0};  // since the start; 0 for never
  };

  void Transmit(size_t bytes);
  void Receive(size_t bytes);
  // The receiver is on for window of each interval, until StopScan.
  void StartScan(std::chrono::microseconds interval, std::chrono::microseconds window);
  void StopScan();
  // Counts in one state only.
  void Add(State state, uint64_t entries, std::chrono::microseconds time);

  // What was counted since the start or the last call; parts of a millisecond stay for the next.
  std::array<Counters, kStates> Take();
  void Restart() { *this = ActivityCounters(); }

 private:
  void Use(State state, uint64_t entries, std::chrono::microseconds time);
  void CountScan();

  EventLoop::Time start_ = EventLoop::Clock::now();
  EventLoop::Time taken_ = start_;  // time up to here has been given to the states
  std::array<Counters, kStates> counters_;
  std::chrono::microseconds busy_{0};           // since taken_
  std::chrono::microseconds scan_interval_{0};  // 0 while it does not scan
  std::chrono::microseconds scan_window_{0};
  EventLoop::Time scan_counted_{};
};

}  // namespace zvk
