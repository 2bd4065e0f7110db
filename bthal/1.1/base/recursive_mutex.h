#pragma once

#include <android-base/thread_annotations.h>

#include <mutex>

namespace android::hardware::bluetooth {

// std::recursive_mutex with the annotations that thread-safety analysis needs.
class CAPABILITY("mutex") RecursiveMutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

class SCOPED_CAPABILITY RecursiveLock {
 public:
  explicit RecursiveLock(RecursiveMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~RecursiveLock() RELEASE() { mutex_.unlock(); }
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;

 private:
  RecursiveMutex& mutex_;
};

}  // namespace android::hardware::bluetooth
