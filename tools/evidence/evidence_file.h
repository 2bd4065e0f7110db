// The files that a failure leaves, read without trust in what they hold.
#pragma once

#include <ctime>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace bthalctl {

// crashinfo_bt_TIMESTAMP.txt, lines "crash_reason: ", "crash_count: ", "timestamp: ": reason,
// count, time. tombstone_NN, the backtrace of a process that a signal ended: time, pid, tid,
// thread, signal, message, function, frames. The function is the one of the program's own first
// frame that is no part of the log (bthal::log::), without namespaces and arguments.
// Both throw Failure that says what is wrong with text.
nlohmann::json ParseCrashInfo(const std::string& text);
nlohmann::json ParseTombstone(const std::string& text);

// "2026-11-21_06-48-18", local time, as it stands in crash files and in the names of all of them.
std::optional<time_t> ParseTimestamp(const std::string& text);

// The content of a regular file of at most 4 MB. Throws Failure for any other.
std::string ReadEvidence(const std::string& path);

// text with "?" for the control characters, which a terminal would obey.
std::string Printable(const std::string& text);

}  // namespace bthalctl
