#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <string>
#include <string_view>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// A crash file while it is written, by one thread. However many writes fail, one error line is
// logged; a file that stays empty is removed.
class CrashFile {
 public:
  // Opens path with flags and mode. kind and operation name the file and the caller in the error
  // line when it cannot be opened.
  CrashFile(std::string path, int flags, mode_t mode, const char* kind, const char* operation);
  ~CrashFile();
  CrashFile(const CrashFile&) = delete;
  CrashFile& operator=(const CrashFile&) = delete;

  bool ok() const { return fd_.ok(); }
  int fd() const { return fd_.get(); }
  // Returns how many bytes were written, -1 for none.
  ssize_t Write(std::string_view bytes);
  bool failed() const { return error_ != 0; }
  // A failed write is not logged: an earlier one of the same file was.
  void SetQuiet(bool quiet) { quiet_ = quiet; }

 private:
  const std::string path_;
  const char* const operation_;
  const base::unique_fd fd_;
  int error_ = 0;  // of the first write that failed
  bool quiet_ = false;
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
