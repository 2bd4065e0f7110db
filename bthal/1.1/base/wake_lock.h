#pragma once

#include <android-base/thread_annotations.h>

#include <mutex>

namespace android::hardware::bluetooth {

// The platform's partial wake lock "bthal_wakelock", shared by the bring-up and the low-power
// logic: acquired with the first use, released with the last. Any thread.
class WakeLock {
 public:
  static WakeLock& Get();

  void Acquire();
  void Release();

 private:
  std::mutex lock_;
  int uses_ GUARDED_BY(lock_) = 0;
};

}  // namespace android::hardware::bluetooth
