#pragma once

#include <android-base/thread_annotations.h>

#include <condition_variable>
#include <mutex>

#include "base/thread_role.h"

namespace android::hardware::bluetooth {

// Lets one thread at a time open or close the transport. Any thread.
class TeardownGate {
 public:
  // Held while a thread is inside. A thread that comes while another one is inside waits for it,
  // but a thread that the other one may be joining is refused at once and must return.
  class Passage {
   public:
    explicit Passage(TeardownGate& gate) : gate_(gate), entered_(gate.Enter()) {}
    ~Passage() {
      if (entered_) gate_.Leave();
    }
    Passage(const Passage&) = delete;
    Passage& operator=(const Passage&) = delete;

    explicit operator bool() const { return entered_; }

   private:
    TeardownGate& gate_;
    const bool entered_;
  };

 private:
  bool Enter() EXCLUDES(lock_) {
    std::unique_lock<std::mutex> lock(lock_);
    const base::ScopedLockAssertion locked(lock_);
    while (busy_) {
      if (IsJoinedByTeardown()) return false;
      idle_.wait(lock);
    }
    busy_ = true;
    return true;
  }

  void Leave() EXCLUDES(lock_) {
    std::lock_guard<std::mutex> lock(lock_);
    busy_ = false;
    idle_.notify_all();
  }

  std::mutex lock_;
  std::condition_variable idle_;
  bool busy_ GUARDED_BY(lock_) = false;
};

}  // namespace android::hardware::bluetooth
