// The process's records: what happened, when, for the debug report and the crash files.
#pragma once

#include <string>

#include "evidence/anchor_records.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// The process's one store, built on first use, never destroyed.
AnchorRecords& Records();

// Adds a record of one moment, cut to what a buffer of 128 bytes holds. Any thread.
void Record(AnchorType type, const std::string& text);

// Records that a scope is entered (" [ IN]") and left (" [OUT]").
class ScopedRecord {
 public:
  // An empty name leaves no record at the end.
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

namespace android::hardware::bluetooth {
namespace evidence = V1_1::zvkbtlinux::debug;
}  // namespace android::hardware::bluetooth
