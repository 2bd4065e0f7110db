#pragma once

#include <android-base/thread_annotations.h>
#include <time.h>

#include <array>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "evidence/anchor_type.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// The numbers of a record whose text is made only when it is read.
using AnchorValues = std::array<uint32_t, 3>;
using AnchorFormatter = std::string (*)(const AnchorValues& values);

// A bounded history of timestamped records and, for each type, the last one. Any thread; its lock
// is a leaf. Adding a record by formatter costs a clock read and a few stores: no allocation, no
// formatting.
class AnchorRecords {
 public:
  static constexpr size_t kHistoryLimit = 400;

  struct Line {
    std::string text;
    std::string timestamp;  // local time, HH:MM:SS:mmm
  };

  void Add(AnchorType type, const std::string& text);
  // Called for each record that is added as a text, on its thread; must not add one.
  using Listener = void (*)(AnchorType type, const std::string& text);
  void SetListener(Listener listener) { listener_.store(listener, std::memory_order_release); }
  // suffix is appended to the formatter's text; it must be a literal.
  void Add(AnchorType type, AnchorFormatter formatter, const AnchorValues& values,
           const char* suffix);

  std::vector<Line> History() const;          // oldest first
  std::vector<Line> LastAppearances() const;  // by ascending type

 private:
  struct Record {
    timespec time{};
    AnchorFormatter formatter = nullptr;  // null: the text stands in text
    AnchorValues values{};
    const char* suffix = "";
    std::string text;
  };

  // The two places of a record that is added now, with its time: in the history and by type.
  std::array<Record*, 2> NewRecords(AnchorType type) REQUIRES(lock_);
  static std::vector<Line> ToLines(const std::vector<Record>& records);

  std::atomic<Listener> listener_{nullptr};
  mutable std::mutex lock_;
  std::array<Record, kHistoryLimit> history_ GUARDED_BY(lock_);  // a ring
  size_t added_ GUARDED_BY(lock_) = 0;                           // since the start
  std::array<Record, 256> last_ GUARDED_BY(lock_);  // by type; a time of 0 marks an empty one
};

// HH:MM:SS:mmm of a wall-clock time, in local time.
std::string FormatTimestamp(const timespec& time);
std::string TimestampNow();

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
