#pragma once

#include <android-base/thread_annotations.h>

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// Writes one part of a text to fd.
using SectionWriter = std::function<void(int fd)>;

// What writer writes. Empty, with an error line, when there is no memory for it.
std::string TextOf(const SectionWriter& writer);

// Writes text to fd (a pipe, a socket or a file), whose flags stay as they are. Ends with a warning
// when the reader at the other end takes nothing for 2 s, or not everything within 4 s. Returns
// whether all of it is written.
bool WriteToReader(int fd, std::string_view text);

// The debug report: the records, then the sections that were added. Any thread.
class DebugReport {
 public:
  // The next section of the report. Writers stay for the life of the report.
  void Add(SectionWriter section) EXCLUDES(lock_);
  // Where the first lines of the records come from: the controller's firmware, in words.
  void SetFirmwareDescription(std::function<std::string()> description) EXCLUDES(lock_);

  // Firmware description and records.
  std::string HalLog() const EXCLUDES(lock_);
  // Writes the whole report to the reader of fd.
  void Write(int fd) const EXCLUDES(lock_);

 private:
  mutable std::mutex lock_;
  std::vector<SectionWriter> sections_ GUARDED_BY(lock_);
  std::function<std::string()> firmware_description_ GUARDED_BY(lock_);
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
