// The crash files of DebugCentral.
#define LOG_TAG "bthal.debug_central"

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <bthal/root.h>
#include <fcntl.h>
#include <log/log.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "debug_central.h"
#include "evidence/debug_files.h"
#include "transport_shim.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

// YYYY-MM-DD_HH-MM-SS, local time.
std::string FileTimestamp() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  return base::StringPrintf("%d-%02d-%02d_%02d-%02d-%02d", local.tm_year + 1900, local.tm_mon + 1,
                            local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

// A file of that name is that of another failure in the same second: it stays as it is.
base::unique_fd CreateReadOnlyFile(const std::string& path, const char* kind,
                                   const char* operation) {
  base::unique_fd fd(bthal::root::Open(path, O_RDWR | O_CREAT | O_EXCL | O_SYNC, 0644));
  if (fd.get() < 0) {
    ALOGE("%s: Failed to open %s file: %s, failed: %s (%d)\n", operation, kind, path.c_str(),
          strerror(errno), errno);
  } else {
    fchmod(fd.get(), 0444);
  }
  return fd;
}

}  // namespace

void DebugCentral::start_crash_dump(const std::string& reason) {
  const std::string timestamp = FileTimestamp();
  {
    RecursiveLock guard(lock_);
    if (!crash_timestamp_.empty()) {
      ALOGD("%s: coredump has already been generated, skipping reason: %s", __func__,
            reason.c_str());
      return;
    }
    crash_timestamp_ = timestamp;
  }
  ALOGE("%s: reason: %s", __func__, reason.c_str());

  const std::string core_path = kCoreDumpDirectory + (kCoreDumpPrefix + timestamp) + ".bin";
  ALOGW("%s: Starting to generate Bluetooth ssrdump files: %s", __func__, core_path.c_str());
  {
    const base::unique_fd core = CreateReadOnlyFile(core_path, "coredump", __func__);
    if (core.get() < 0) return;
    write_core_dump(core.get(), reason, timestamp);
  }

  const std::string info_path = kDumpDirectory + (kCrashInfoPrefix + timestamp) + ".txt";
  const base::unique_fd info = CreateReadOnlyFile(info_path, "crashinfo", __func__);
  if (info.get() < 0) return;
  base::WriteStringToFd(base::StringPrintf("crash_reason: %s\ncrash_count: %u\ntimestamp: %s\n",
                                           reason.c_str(), ++crash_count_, timestamp.c_str()),
                        info);
}

void DebugCentral::write_core_dump(int fd, const std::string& reason,
                                   const std::string& timestamp) {
  base::WriteStringToFd("DUMP REASON: " + reason + " - occurred at " + timestamp + "\n", fd);
  dump_hal_log(fd);
  ALOGI("start_crash_dump: Request to get Transport Layer Debug Dump");
  hci::shim::GetTlDebugDump(fd, UartDebugPort(), kLpmLogBuffer);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
