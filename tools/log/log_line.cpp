#include "tools/log/log_line.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

namespace bthalctl {

using std::chrono::system_clock;

std::optional<system_clock::time_point> LocalTime(int year, int month, int day, int hour,
                                                  int minute, int second) {
  if (year < 1970 || year > 9999 || month < 1 || month > 12 || day < 1 || day > 31 || hour < 0 ||
      hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 60) {
    return std::nullopt;
  }
  tm local = {};
  local.tm_year = year - 1900;
  local.tm_mon = month - 1;
  local.tm_mday = day;
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_sec = second;
  local.tm_isdst = -1;
  return system_clock::from_time_t(mktime(&local));
}

std::optional<LogLine> ParseLogLine(const std::string& line) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0, end = 0;
  LogLine parsed;
  if (std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%3d %d %*d %c %n", &year, &month, &day,
                  &hour, &minute, &second, &millisecond, &parsed.pid, &parsed.priority,
                  &end) != 9 ||
      end == 0 || std::strchr("VDIWEF", parsed.priority) == nullptr) {
    return std::nullopt;
  }
  const auto time = LocalTime(year, month, day, hour, minute, second);
  const size_t tag_begin = static_cast<size_t>(end);
  const size_t tag_end = line.find(": ", tag_begin);
  if (!time || tag_end == std::string::npos) return std::nullopt;
  parsed.time = *time + std::chrono::milliseconds(millisecond);
  parsed.tag = line.substr(tag_begin, tag_end - tag_begin);
  parsed.text = line.substr(tag_end + 2);
  return parsed;
}

std::optional<std::string> DetailOf(const LogLine& line, const char* tag, const char* before,
                                    const char* after) {
  const std::string_view text = line.text;
  const std::string_view begin = before;
  if (line.tag != tag || text.substr(0, begin.size()) != begin) return std::nullopt;
  const std::string_view rest = text.substr(begin.size());
  if (after == nullptr && !rest.empty()) return std::nullopt;
  const bool all = after == nullptr || *after == 0;
  return std::string(all ? rest : rest.substr(0, rest.find(after)));
}

}  // namespace bthalctl
