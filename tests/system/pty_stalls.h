#pragma once

#include <chrono>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace test {

// Serial lines are pseudo-terminals here, whose bytes a worker of the kernel moves. On a machine
// with far too much to do it has been seen to come seconds late, which no time-out of a command
// survives. This measures, with a terminal of its own, when that was so. Runs from construction to
// destruction.
class PtyStalls {
 public:
  using Clock = std::chrono::steady_clock;

  PtyStalls();
  ~PtyStalls();
  PtyStalls(const PtyStalls&) = delete;
  PtyStalls& operator=(const PtyStalls&) = delete;

  // Whether bytes took so long in the last few seconds that a command's two seconds may have passed
  // without the controller's or the service's doing.
  bool Recently();

 private:
  void Measure();

  int master_ = -1;
  int slave_ = -1;
  std::mutex lock_;
  std::vector<std::pair<Clock::time_point, Clock::duration>> late_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace test
