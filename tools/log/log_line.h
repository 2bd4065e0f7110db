#pragma once

#include <chrono>
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

// Empty when line is none.
std::optional<LogLine> ParseLogLine(const std::string& line);

// Whole seconds of a local date. Empty when a field is out of its range.
std::optional<std::chrono::system_clock::time_point> LocalTime(int year, int month, int day,
                                                               int hour, int minute, int second);

}  // namespace bthalctl
