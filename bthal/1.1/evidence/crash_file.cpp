#define LOG_TAG "bthal.debug_central"

#include "evidence/crash_file.h"

#include <log/log.h>
#include <root_folder/root_folder.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

CrashFile::CrashFile(std::string path, int flags, mode_t mode, const char* kind,
                     const char* operation)
    : path_(std::move(path)), operation_(operation), fd_(root_folder::Open(path_, flags, mode)) {
  if (!ok()) {
    ALOGE("%s: Failed to open %s file: %s, failed: %s (%d)\n", operation_, kind, path_.c_str(),
          strerror(errno), errno);
  }
}

CrashFile::~CrashFile() {
  if (error_ == 0) return;
  if (!quiet_) {
    ALOGE("%s: %s is not whole: %s (%d)", operation_, path_.c_str(), strerror(error_), error_);
  }
  struct stat status {};
  if (fstat(fd_.get(), &status) == 0 && status.st_size == 0) {
    unlink(root_folder::Resolve(path_).c_str());
  }
}

ssize_t CrashFile::Write(std::string_view bytes) {
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n =
        TEMP_FAILURE_RETRY(write(fd_.get(), bytes.data() + written, bytes.size() - written));
    if (n <= 0) {
      if (error_ == 0) error_ = n < 0 ? errno : ENOSPC;
      return written > 0 ? static_cast<ssize_t>(written) : -1;
    }
    written += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(written);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
