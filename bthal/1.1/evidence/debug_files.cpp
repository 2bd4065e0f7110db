#define LOG_TAG "bthal.debug_central"

#include "evidence/debug_files.h"

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <log/log.h>
#include <root_folder/root_folder.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <mutex>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

using ::android::base::EndsWith;
using ::android::base::StartsWith;
using ::android::base::StringAppendF;

const std::string kStars(45, '*');

bool ReadWholeFile(const std::string& path, std::string* content) {
  // O_NONBLOCK: a kernel log buffer that has nothing more to say must not hold up the report.
  const base::unique_fd fd(root_folder::Open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY));
  if (fd.get() < 0) return false;
  return base::ReadFdToString(fd, content) || errno == EAGAIN;
}

bool IsRegularFile(const std::string& path) {
  struct stat status {};
  return stat(root_folder::Resolve(path).c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string ToHexLines(const std::string& bytes) {
  constexpr size_t kBytesPerLine = 8;
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    StringAppendF(&text, "%02x", static_cast<unsigned char>(bytes[i]));
    if ((i + 1) % kBytesPerLine == 0 || i + 1 == bytes.size()) text += '\n';
  }
  return text;
}

struct DebugPort {
  std::mutex lock;
  std::string path GUARDED_BY(lock);
};

DebugPort& TheDebugPort() {
  static auto* port = new DebugPort;
  return *port;
}

}  // namespace

void SetBtUartDebugPort(const std::string& uart_port) {
  if (uart_port.empty()) {
    ALOGE("%s: uart port is empty!", __func__);
    return;
  }
  const size_t digit = uart_port.find_first_of("0123456789");
  if (digit == std::string::npos) {
    ALOGE("%s: cannot found uart port!", __func__);
    return;
  }
  std::lock_guard<std::mutex> guard(TheDebugPort().lock);
  TheDebugPort().path = "/dev/logbuffer_tty" + uart_port.substr(digit);
  ALOGI("%s: serial debug port: %s", __func__, TheDebugPort().path.c_str());
}

std::string UartDebugPort() {
  std::lock_guard<std::mutex> guard(TheDebugPort().lock);
  return TheDebugPort().path;
}

void dump_debugfs_to_fd(int fd, const std::string& path) {
  std::string text = std::string(kRule) + "\nDebugfs:" + path + "\n" + kRule + "\n";
  std::string content;
  if (ReadWholeFile(path, &content)) {
    text += content + "\n";
  } else {
    text += "Fail to read debugfs: " + path + "\n";
  }
  text += "\n";
  base::WriteStringToFd(text, fd);
}

void collect_sscd_logs(int fd, const std::string& prefix, const std::string& dir) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(root_folder::OpenDirectory(dir), closedir);
  if (directory == nullptr) {
    ALOGW("%s: Failed to open directory, skip %s", __func__, prefix.c_str());
    return;
  }
  std::string text;
  while (const dirent* entry = readdir(directory.get())) {
    const std::string name = entry->d_name;
    const std::string path = dir + name;
    if (!StartsWith(name, prefix) || !IsRegularFile(path)) continue;
    ALOGD("%s: Dumping %s", __func__, path.c_str());
    const bool binary = EndsWith(name, ".bin") && (StartsWith(name, kControllerDumpPrefix) ||
                                                   StartsWith(name, kChreDumpPrefix));
    text.append(kStars).append("\n\nBEGIN of LogFile: ").append(name).append("\n\n");
    text.append(kStars).append("\n");
    std::string content;
    if (!ReadWholeFile(path, &content)) {
      text += "File open failed: " + prefix + "\n";
    } else {
      text += binary ? ToHexLines(content) : content + "\n";
    }
    text.append(kStars).append("\n\nEND of LogFile: ").append(name).append("\n\n");
    text.append(kStars).append("\n\n");
  }
  base::WriteStringToFd(text, fd);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
