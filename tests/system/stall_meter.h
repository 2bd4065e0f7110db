// Whether the machine stood still for a while, for processes or for serial lines: a thread that
// sends itself a byte through a pty every few milliseconds and notes how long that took.
#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "support/pty.h"

namespace test {

class StallMeter {
 public:
  using Clock = std::chrono::steady_clock;

  StallMeter();
  ~StallMeter();
  StallMeter(const StallMeter&) = delete;
  StallMeter& operator=(const StallMeter&) = delete;

  // The longest delay that lies between the two times or reaches into what is between them.
  std::chrono::milliseconds Longest(Clock::time_point from, Clock::time_point to);

 private:
  struct Stall {
    Clock::time_point begin, end;
  };
  void Run();

  Pty pty_;  // the thread's
  std::mutex lock_;
  bool stop_ = false;
  Clock::time_point under_way_;  // since when the thread is at what it does now
  std::vector<Stall> stalls_;    // those worth noting, in order
  std::thread thread_;
};

// What matters to time-outs of seconds: a command and its answer may both meet it.
constexpr std::chrono::milliseconds kStall{500};

// The result of run, and once more (ten times at most) while the machine stood still meanwhile.
template <typename Result, typename Run>
Result WithoutStalls(StallMeter& meter, const Run& run) {
  for (int attempt = 1;; ++attempt) {
    const auto start = StallMeter::Clock::now();
    Result result = run();
    const auto longest = meter.Longest(start, StallMeter::Clock::now());
    if (attempt == 10 || longest < kStall) return result;
    printf("once more, the machine stood still for %d ms\n", static_cast<int>(longest.count()));
  }
}

}  // namespace test
