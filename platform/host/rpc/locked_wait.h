#pragma once

#include <android-base/thread_annotations.h>

#include <condition_variable>
#include <mutex>

namespace bthal::rpc {

// Waits on changed under mutex, which the caller holds by a std::lock_guard: thread-safety analysis
// follows that, and not std::unique_lock.
inline void LockedWait(std::condition_variable& changed, std::mutex& mutex) REQUIRES(mutex);

inline void LockedWait(std::condition_variable& changed, std::mutex& mutex) {
  std::unique_lock<std::mutex> lock(mutex, std::adopt_lock);
  changed.wait(lock);
  lock.release();
}

}  // namespace bthal::rpc
