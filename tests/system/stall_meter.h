// Whether the machine stood still for a while: a thread that wakes up every few milliseconds and
// notes how late it was.
#pragma once

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace test {

class StallMeter {
 public:
  using Clock = std::chrono::steady_clock;

  StallMeter();
  ~StallMeter();
  StallMeter(const StallMeter&) = delete;
  StallMeter& operator=(const StallMeter&) = delete;

  // The longest that this thread was kept from running, between the two times or across one.
  std::chrono::milliseconds Longest(Clock::time_point from, Clock::time_point to);

 private:
  struct Stall {
    Clock::time_point end;
    std::chrono::milliseconds length;
  };
  void Run();

  std::mutex lock_;
  bool stop_ = false;
  std::vector<Stall> stalls_;  // those worth noting, in order
  std::thread thread_;
};

}  // namespace test
