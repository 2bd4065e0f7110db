#pragma once

#include <android-base/thread_annotations.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "base/timer.h"

namespace android::hardware::bluetooth {

// Lets the controller sleep when nothing was sent for one to two timer periods, wakes it before
// each transmission, and holds the wake lock while it is awake. Owned by BtZvkProtocol. Any thread.
class LowPower {
 public:
  // One period in which the controller was awake.
  struct Awake {
    std::string wake_time;   // local time, HH:MM:SS:mmm
    std::string sleep_time;  // the same
    uint32_t duration_ms = 0;
    uint32_t transmissions = 0;
  };

  // The operations of the open transport.
  struct Line {
    std::function<bool()> setup;
    std::function<void()> teardown;
    std::function<bool()> suspend;
    std::function<bool()> wake_up;
    std::function<bool()> is_running;
  };

  // long_awake: called for each period of more than 10 s.
  LowPower(Line line, std::function<void(const Awake&)> long_awake)
      : line_(std::move(line)), long_awake_(std::move(long_awake)) {}
  LowPower(const LowPower&) = delete;
  LowPower& operator=(const LowPower&) = delete;

  // Switches the low-power mode on: transport, timer, then the controller through
  // set_sleep_mode, which returns whether the controller accepted. Off again when a step fails.
  void Setup(const std::function<bool()>& set_sleep_mode) EXCLUDES(lock_);
  void Teardown() EXCLUDES(lock_);

  // Before each transmission. True when the controller is awake, or the mode is off.
  bool WakeUp() EXCLUDES(lock_);
  // After each: a line that is held up may take longer than two periods.
  void Sent() EXCLUDES(lock_);

 private:
  static constexpr std::chrono::milliseconds kPeriod{800};

  void OnTimer() EXCLUDES(lock_);
  // Ends the awake state; returns the timer, to be deleted without the lock.
  [[nodiscard]] std::unique_ptr<Timer> Reset() REQUIRES(lock_);
  void wakelock_acquire() REQUIRES(lock_);
  void wakelock_release() REQUIRES(lock_);

  const Line line_;
  const std::function<void(const Awake&)> long_awake_;

  std::mutex lock_;
  std::unique_ptr<Timer> timer_ GUARDED_BY(lock_);  // null: the low-power mode is off
  bool active_ GUARDED_BY(lock_) = false;           // something was sent since the last tick
  int under_way_ GUARDED_BY(lock_) = 0;             // transmissions
  bool awake_ GUARDED_BY(lock_) = false;
  bool wake_lock_held_ GUARDED_BY(lock_) = false;
  uint32_t transmissions_ GUARDED_BY(lock_) = 0;  // since the last suspend
  std::chrono::steady_clock::time_point wake_start_ GUARDED_BY(lock_);
  std::string wake_time_ GUARDED_BY(lock_);
};

}  // namespace android::hardware::bluetooth
