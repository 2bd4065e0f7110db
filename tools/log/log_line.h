#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>

namespace bthalctl {

// A line of the service's log: "2026-11-21 06:46:16.841  5341  5353 I TAG: TEXT", in local time.
struct LogLine {
  std::chrono::system_clock::time_point time;
  char priority = 'I';  // V, D, I, W, E or F
  std::string tag;
  std::string text;

  bool IsTrouble() const { return priority == 'W' || priority == 'E' || priority == 'F'; }
};

// Empty when line is no log line.
std::optional<LogLine> ParseLogLine(const std::string& line);

// The detail in a line of this tag whose text begins with before: what follows, up to after
// (nullptr: nothing may follow; "": all that follows). Empty for any other line.
std::optional<std::string> DetailOf(const LogLine& line, const char* tag, const char* before,
                                    const char* after);

// Seconds since 1970 of a local date, such as strptime() reads by format. Empty when text is none,
// or more than that, or beyond what system_clock can tell.
std::optional<time_t> ParseLocalTime(const std::string& text, const char* format);

// "2026-11-21 06:48:18", local time of seconds since 1970.
std::string LocalTimeText(time_t seconds);

}  // namespace bthalctl
