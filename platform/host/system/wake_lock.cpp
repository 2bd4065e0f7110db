#define LOG_TAG "bthal.wakelock"

#include <android-base/logging.h>
#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <hardware_legacy/power.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "bthal/root.h"

namespace {

// Writes name to one of the kernel's files. 0 or errno.
int Tell(const char* file, const char* name) {
  const android::base::unique_fd kernel(bthal::root::Open(file, O_WRONLY | O_NONBLOCK | O_NOCTTY));
  if (kernel.get() < 0) return errno;
  const auto size = static_cast<ssize_t>(strlen(name));
  return write(kernel.get(), name, static_cast<size_t>(size)) == size ? 0 : errno;
}

// The account that is kept when the kernel keeps none.
void Count(const char* name, int change) {
  static std::mutex mutex;
  static auto* const held = new std::map<std::string, int>;
  const std::lock_guard<std::mutex> lock(mutex);
  const int count = (*held)[name] += change;
  LOG(INFO) << "no wake locks on this machine: " << name << " is held " << count << " times";
}

int Change(const char* file, const char* name, int change) {
  const int error = Tell(file, name);
  if (error == ENOENT) {
    Count(name, change);
    return 0;
  }
  if (error != 0) LOG(ERROR) << file << ": " << name << ": " << strerror(error);
  return -error;
}

}  // namespace

int acquire_wake_lock(int lock, const char* id) {
  if (lock != PARTIAL_WAKE_LOCK) return -EINVAL;
  return Change("/sys/power/wake_lock", id, 1);
}

int release_wake_lock(const char* id) { return Change("/sys/power/wake_unlock", id, -1); }
