#pragma once

#include <android-base/thread_annotations.h>

#include <condition_variable>
#include <mutex>

#include "thread_role.h"

namespace android::hardware::bluetooth {

// Lets one tear-down run at a time. Any thread.
class TeardownGate {
 public:
  // True: the caller runs the tear-down and calls Leave(). A caller that comes while another one
  // runs waits for its end first; on a thread that the other one may be joining it gets false at
  // once and must return.
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

 private:
  std::mutex lock_;
  std::condition_variable idle_;
  bool busy_ GUARDED_BY(lock_) = false;
};

}  // namespace android::hardware::bluetooth
