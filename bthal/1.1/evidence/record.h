// The process's records: what happened, when, for the debug report and the crash files.
#pragma once

#include <android-base/stringprintf.h>

#include <string>

#include "evidence/anchor_records.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// The process's one store, built on first use, never destroyed.
AnchorRecords& Records();

// Add a record of one moment, cut to what a buffer of 128 bytes holds. Any thread.
void Record(AnchorType type, const std::string& text);
void RecordFormat(AnchorType type, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Logs a line with one of the ALOG macros and records the same text.
#define BTHAL_LOG_AND_RECORD(log, type, ...)                               \
  do {                                                                     \
    const std::string logged = ::android::base::StringPrintf(__VA_ARGS__); \
    log("%s", logged.c_str());                                             \
    ::android::hardware::bluetooth::evidence::Record(type, logged);        \
  } while (false)

// Records that a scope is entered (" [ IN]") and left (" [OUT]").
class ScopedRecord {
 public:
  // With an empty name, the end is not recorded.
  ScopedRecord(AnchorType type, std::string name);
  // For the hot path: the text is made when the record is read.
  ScopedRecord(AnchorType type, AnchorFormatter formatter, const AnchorValues& values);
  ~ScopedRecord();
  ScopedRecord(const ScopedRecord&) = delete;
  ScopedRecord& operator=(const ScopedRecord&) = delete;

 private:
  const std::string name_;
  const AnchorType type_;
  const AnchorFormatter formatter_ = nullptr;
  const AnchorValues values_{};
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
