#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace bthalctl {

// A line of the service's log: "2026-11-21 06:46:16.841  5341  5353 I TAG: TEXT", in local time.
struct LogLine {
  std::chrono::system_clock::time_point time;
  int pid = 0;
  char priority = 'I';  // V, D, I, W, E or F
  std::string tag;
  std::string text;

  bool IsTrouble() const { return priority == 'W' || priority == 'E' || priority == 'F'; }
};

// Empty when line is none.
std::optional<LogLine> ParseLogLine(const std::string& line);

// Finds a line that tells something: of this tag, with a text that begins with before. Returns the
// detail: what follows up to after (nullptr: nothing may follow; "": all that follows). Empty when
// the line is not of that kind.
std::optional<std::string> DetailOf(const LogLine& line, const char* tag, const char* before,
                                    const char* after);

// Whole seconds of a local date. Empty when a field is out of its range.
std::optional<std::chrono::system_clock::time_point> LocalTime(int year, int month, int day,
                                                               int hour, int minute, int second);

}  // namespace bthalctl
