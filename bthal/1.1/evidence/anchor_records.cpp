#include "evidence/anchor_records.h"

#include <android-base/stringprintf.h>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

timespec Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

bool IsEmpty(const timespec& time) { return time.tv_sec == 0; }

}  // namespace

std::string FormatTimestamp(const timespec& time) {
  tm local{};
  localtime_r(&time.tv_sec, &local);
  return base::StringPrintf("%02d:%02d:%02d:%03ld", local.tm_hour, local.tm_min, local.tm_sec,
                            time.tv_nsec / 1000000);
}

std::string TimestampNow() { return FormatTimestamp(Now()); }

void AnchorRecords::Add(AnchorType type, const std::string& text) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (Record* record : NewRecords(type)) {
      record->formatter = nullptr;
      record->text = text;
    }
  }
  if (const Listener listener = listener_.load(std::memory_order_acquire)) listener(type, text);
}

std::array<AnchorRecords::Record*, 2> AnchorRecords::NewRecords(AnchorType type) {
  const timespec now = Now();
  const std::array<Record*, 2> records = {&history_[added_++ % kHistoryLimit],
                                          &last_[static_cast<uint8_t>(type)]};
  for (Record* record : records) record->time = now;
  return records;
}

void AnchorRecords::Add(AnchorType type, AnchorFormatter formatter, const AnchorValues& values,
                        const char* suffix) {
  std::lock_guard<std::mutex> guard(lock_);
  for (Record* record : NewRecords(type)) {
    record->formatter = formatter;
    record->values = values;
    record->suffix = suffix;
  }
}

std::vector<AnchorRecords::Line> AnchorRecords::ToLines(const std::vector<Record>& records) {
  std::vector<Line> lines;
  lines.reserve(records.size());
  for (const Record& record : records) {
    lines.push_back({record.formatter == nullptr ? record.text
                                                 : record.formatter(record.values) + record.suffix,
                     FormatTimestamp(record.time)});
  }
  return lines;
}

std::vector<AnchorRecords::Line> AnchorRecords::History() const {
  std::vector<Record> records;
  {
    std::lock_guard<std::mutex> guard(lock_);
    const size_t first = added_ > kHistoryLimit ? added_ - kHistoryLimit : 0;
    records.reserve(added_ - first);
    for (size_t i = first; i < added_; ++i) records.push_back(history_[i % kHistoryLimit]);
  }
  return ToLines(records);
}

std::vector<AnchorRecords::Line> AnchorRecords::LastAppearances() const {
  std::vector<Record> records;
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (const Record& record : last_) {
      if (!IsEmpty(record.time)) records.push_back(record);
    }
  }
  return ToLines(records);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
