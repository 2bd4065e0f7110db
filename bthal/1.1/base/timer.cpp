#include "base/timer.h"

#include <android-base/thread_annotations.h>
#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

namespace android::hardware::bluetooth {

struct Timer::State {
  std::mutex lock;
  std::condition_variable changed;
  std::optional<std::chrono::steady_clock::time_point> expiry GUARDED_BY(lock);
  std::chrono::milliseconds period GUARDED_BY(lock){0};
  bool stopped GUARDED_BY(lock) = false;
  std::thread thread;  // written before the timer is handed out, then only by its destructor

  // Sleeps until the next expiry, and sets the one after it. False once the timer is deleted.
  bool WaitForExpiry() EXCLUDES(lock) {
    std::unique_lock<std::mutex> guard(lock);
    const base::ScopedLockAssertion locked(lock);
    while (!stopped) {
      if (!expiry) {
        changed.wait(guard);
      } else if (std::chrono::steady_clock::now() < *expiry) {
        const auto until = *expiry;  // may change while waiting
        changed.wait_until(guard, until);
      } else {
        if (period.count() > 0) {
          // From now: after a stall, missed calls are not made up for.
          expiry = std::chrono::steady_clock::now() + period;
        } else {
          expiry.reset();
        }
        return true;
      }
    }
    return false;
  }
};

std::unique_ptr<Timer> Timer::Create(const char* name, std::function<void()> callback) {
  auto state = std::make_shared<State>();
  try {
    state->thread = std::thread([state, callback = std::move(callback)] {
      while (state->WaitForExpiry()) callback();
    });
  } catch (const std::system_error&) {
    return nullptr;
  }
  pthread_setname_np(state->thread.native_handle(), name);
  return std::unique_ptr<Timer>(new Timer(std::move(state)));
}

Timer::Timer(std::shared_ptr<State> state) : state_(std::move(state)) {}

Timer::~Timer() {
  {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->stopped = true;
    state_->changed.notify_all();
  }
  if (state_->thread.get_id() == std::this_thread::get_id()) {
    state_->thread.detach();
  } else {
    state_->thread.join();
  }
}

bool Timer::Arm(std::chrono::milliseconds first, std::chrono::milliseconds period) {
  std::lock_guard<std::mutex> guard(state_->lock);
  const auto expiry = std::chrono::steady_clock::now() + first;
  // A thread that sleeps until an earlier time than the new one reads the new time then: putting a
  // timer off, as each packet may do, wakes no thread.
  const bool sooner = !state_->expiry || expiry < *state_->expiry;
  state_->expiry = expiry;
  state_->period = period;
  if (sooner) state_->changed.notify_all();
  return !state_->stopped;
}

void Timer::Disarm() {
  std::lock_guard<std::mutex> guard(state_->lock);
  state_->expiry.reset();
  state_->changed.notify_all();
}

}  // namespace android::hardware::bluetooth
