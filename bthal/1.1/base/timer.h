#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace android::hardware::bluetooth {

// A timer on the monotonic clock, with a thread of its own for as long as it exists; the thread
// sleeps without limit while the timer is disarmed. Any thread may arm, disarm or
// destroy it; destruction waits for a running callback, unless it happens inside that callback.
class Timer {
 public:
  // name: of the thread, at most 15 characters.
  static std::unique_ptr<Timer> Create(const char* name, std::function<void()> callback);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Calls back after first, then again when period has passed since the last call began; once only
  // when period is 0. Replaces what was armed. Returns false only for a timer that is being
  // deleted.
  bool Arm(std::chrono::milliseconds first, std::chrono::milliseconds period);
  void Disarm();

 private:
  struct State;
  explicit Timer(std::shared_ptr<State> state);

  const std::shared_ptr<State> state_;
};

}  // namespace android::hardware::bluetooth
