#define LOG_TAG "bthal.debug_central"

#include "evidence/debug_report.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <limits.h>
#include <log/log.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "evidence/debug_files.h"
#include "evidence/record.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kReaderPause{2000};
constexpr milliseconds kWholeReport{4000};

// Writes what a descriptor that poll() calls writable takes without waiting.
ssize_t WriteSome(int fd, std::string_view text) {
  const size_t size = std::min<size_t>(text.size(), PIPE_BUF);
  const ssize_t n = send(fd, text.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
  return n >= 0 || errno != ENOTSOCK ? n : write(fd, text.data(), size);
}

}  // namespace

std::string TextOf(const SectionWriter& writer) {
  const base::unique_fd memory(memfd_create("bthal_section", MFD_CLOEXEC));
  std::string text;
  if (memory.ok()) {
    writer(memory.get());
    lseek(memory.get(), 0, SEEK_SET);
  }
  if (!memory.ok() || !base::ReadFdToString(memory, &text)) {
    ALOGE("%s: no memory for a section: %s (%d)", __func__, strerror(errno), errno);
  }
  return text;
}

bool WriteToReader(int fd, std::string_view text) {
  const size_t whole = text.size();
  const steady_clock::time_point end = steady_clock::now() + kWholeReport;
  steady_clock::time_point deadline = steady_clock::now() + kReaderPause;
  while (!text.empty()) {
    const auto left =
        std::chrono::ceil<milliseconds>(std::min(deadline, end) - steady_clock::now());
    pollfd reader{fd, POLLOUT, 0};
    const int ready = left.count() < 0 ? 0 : poll(&reader, 1, static_cast<int>(left.count()));
    if (ready == 0) {
      ALOGW("%s: the reader of the debug report is too slow: %zu of %zu bytes not written",
            __func__, text.size(), whole);
      return false;
    }
    const ssize_t n = ready < 0 ? -1 : WriteSome(fd, text);
    if (n > 0) {
      text.remove_prefix(static_cast<size_t>(n));
      deadline = steady_clock::now() + kReaderPause;
    } else if (errno != EINTR && errno != EAGAIN) {
      ALOGW("%s: the reader of the debug report is gone: %s, %zu of %zu bytes not written",
            __func__, strerror(errno), text.size(), whole);
      return false;
    }
  }
  return true;
}

void DebugReport::Add(SectionWriter section) {
  std::lock_guard<std::mutex> guard(lock_);
  sections_.push_back(std::move(section));
}

void DebugReport::SetFirmwareDescription(std::function<std::string()> description) {
  std::lock_guard<std::mutex> guard(lock_);
  firmware_description_ = std::move(description);
}

std::string DebugReport::HalLog() const {
  std::function<std::string()> description;
  {
    std::lock_guard<std::mutex> guard(lock_);
    description = firmware_description_;
  }
  const std::string rule = std::string(kRule) + "\n";
  std::string text = rule + "Controller Firmware Information\n" + rule;
  text += (description ? description() : "") + "\n" + rule;
  text += "Anchors' Last Appear\n" + rule;
  for (const AnchorRecords::Line& line : Records().LastAppearances()) {
    text += "Timestamp of " + line.text + ": " + line.timestamp + "\n";
  }
  text += rule + "Anchors' History\n" + rule;
  for (const AnchorRecords::Line& line : Records().History()) {
    text += line.timestamp + ": " + line.text + "\n";
  }
  return text;
}

void DebugReport::Write(int fd) const {
  std::vector<SectionWriter> sections;
  {
    std::lock_guard<std::mutex> guard(lock_);
    sections = sections_;
  }
  std::string text = HalLog();
  for (const SectionWriter& section : sections) text += TextOf(section);
  WriteToReader(fd, text);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
