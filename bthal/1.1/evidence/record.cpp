#include "evidence/record.h"

#include <cstdarg>
#include <utility>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

AnchorRecords& Records() {
  static auto* records = new AnchorRecords;
  return *records;
}

void Record(AnchorType type, const std::string& text) {
  constexpr size_t kLongestText = 127;
  Records().Add(type, text.substr(0, kLongestText));
}

void RecordFormat(AnchorType type, const char* format, ...) {
  std::string text;
  va_list arguments;
  va_start(arguments, format);
  base::StringAppendV(&text, format, arguments);
  va_end(arguments);
  Record(type, text);
}

ScopedRecord::ScopedRecord(AnchorType type, std::string name)
    : name_(std::move(name)), type_(type) {
  Records().Add(type_, name_ + " [ IN]");
}

ScopedRecord::ScopedRecord(AnchorType type, AnchorFormatter formatter, const AnchorValues& values)
    : type_(type), formatter_(formatter), values_(values) {
  Records().Add(type_, formatter_, values_, " [ IN]");
}

ScopedRecord::~ScopedRecord() {
  if (formatter_ != nullptr) {
    Records().Add(ExitOf(type_), formatter_, values_, " [OUT]");
  } else if (!name_.empty()) {
    Records().Add(ExitOf(type_), name_ + " [OUT]");
  }
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
