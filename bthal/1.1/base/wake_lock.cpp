#include "base/wake_lock.h"

#include <hardware_legacy/power.h>

namespace android::hardware::bluetooth {
namespace {
constexpr char kName[] = "bthal_wakelock";
}

WakeLock& WakeLock::Get() {
  static auto* instance = new WakeLock;
  return *instance;
}

void WakeLock::Acquire() {
  std::lock_guard<std::mutex> guard(lock_);
  if (uses_++ == 0) acquire_wake_lock(PARTIAL_WAKE_LOCK, kName);
}

void WakeLock::Release() {
  std::lock_guard<std::mutex> guard(lock_);
  if (uses_ > 0 && --uses_ == 0) release_wake_lock(kName);
}

}  // namespace android::hardware::bluetooth
