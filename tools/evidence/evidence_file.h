// The files that a failure leaves, read without trust in what they hold.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bthalctl {

using SystemTime = std::chrono::system_clock::time_point;

// crashinfo_bt_TIMESTAMP.txt: three lines, "crash_reason: ", "crash_count: ", "timestamp: ".
struct CrashInfo {
  std::string reason;
  uint32_t count = 0;  // of the crash files that this service has written since its start
  SystemTime time;
};

// tombstone_NN: the backtrace of a process that a signal ended.
struct Tombstone {
  SystemTime time;
  int pid = 0;
  int tid = 0;
  std::string thread;
  std::string signal;    // "SIGABRT"
  std::string message;   // of an abort; may be empty
  std::string function;  // where it happened: the program's first frame that is not the abort's
  std::vector<std::string> frames;
};

// Both throw Failure that says what is wrong with text.
CrashInfo ParseCrashInfo(const std::string& text);
Tombstone ParseTombstone(const std::string& text);

// "2026-11-21_06-48-18", local time, as it stands in crash files and in the names of all of them.
std::optional<SystemTime> ParseTimestamp(const std::string& text);

// A regular file of at most limit bytes. Throws Failure for any other.
std::string ReadEvidence(const std::string& path, size_t limit);

// text without what a terminal would take as an order.
std::string Printable(const std::string& text);

}  // namespace bthalctl
