#define LOG_TAG "bthal.wakelock"

#include "system/wake_lock.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <hardware_legacy/power.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "root_folder/root_folder.h"

namespace {

constexpr char kLockFile[] = "/sys/power/wake_lock";
constexpr char kUnlockFile[] = "/sys/power/wake_unlock";
// The names that this process has used, a line each.
constexpr char kNamesFile[] = "/run/bthal/wake_locks";

// Writes name to one of the kernel's files. 0 or errno.
int Tell(const char* file, const char* name) {
  const android::base::unique_fd kernel(root_folder::Open(file, O_WRONLY | O_NONBLOCK | O_NOCTTY));
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

// So that the next process can release it, should this one die.
void Remember(const std::string& name) {
  static std::mutex mutex;
  static auto* const known = new std::set<std::string>;
  const std::lock_guard<std::mutex> lock(mutex);
  if (!known->insert(name).second) return;
  const android::base::unique_fd names(
      root_folder::Open(kNamesFile, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, 0640));
  if (names.get() >= 0) {
    android::base::WriteStringToFd(name + "\n", names);
  } else if (errno != ENOENT) {
    PLOG(ERROR) << kNamesFile;
  }
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
  Remember(id);
  return Change(kLockFile, id, 1);
}

int release_wake_lock(const char* id) { return Change(kUnlockFile, id, -1); }

void bthal::ReleaseWakeLocksOfTheDead() {
  const std::string path = root_folder::Resolve(kNamesFile);
  std::string names;
  android::base::ReadFileToString(path, &names);  // not through a link
  for (const std::string& name : android::base::Split(names, "\n")) {
    if (!name.empty()) Tell(kUnlockFile, name.c_str());  // most were released: no error
  }
  unlink(path.c_str());
}
