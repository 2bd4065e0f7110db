#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>

namespace zvk {

// The one thread of the simulator: descriptors and timers, everything else is called from here.
// Owned by main; an object that watches or sets a timer undoes it before it dies. Timers that are
// due at the same time run in the order in which they were set.
class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;
  using Duration = Clock::duration;
  using TimerId = uint64_t;
  static constexpr TimerId kNoTimer = 0;

  EventLoop();

  // ready is called with the epoll events that came.
  void Watch(int fd, uint32_t events, std::function<void(uint32_t)> ready);
  // Changes what an already watched descriptor waits for; 0 pauses it.
  void Change(int fd, uint32_t events);
  void Unwatch(int fd);

  TimerId After(Duration delay, std::function<void()> run);
  // Harmless for a timer that has run or for kNoTimer; clears *id.
  void Cancel(TimerId* id);

  // Runs before each wait for something to happen.
  void SetIdle(std::function<void()> idle) { idle_ = std::move(idle); }

  void Run();
  void Stop() { running_ = false; }

 private:
  void RunDueTimers();
  void ArmTimer();

  ::android::base::unique_fd epoll_;
  ::android::base::unique_fd timer_fd_;
  bool running_ = true;
  std::map<int, std::shared_ptr<std::function<void(uint32_t)>>> watched_;
  std::map<std::pair<Time, TimerId>, std::function<void()>> timers_;
  std::map<TimerId, Time> due_;
  TimerId last_timer_ = kNoTimer;
  Time armed_ = Time::max();
  std::function<void()> idle_;
};

}  // namespace zvk
