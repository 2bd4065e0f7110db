#include "tools/log/log_line.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

namespace bthalctl {

using std::chrono::system_clock;

std::optional<time_t> ParseLocalTime(const std::string& text, const char* format) {
  tm local = {};
  local.tm_isdst = -1;
  const char* const rest = strptime(text.c_str(), format, &local);
  if (rest != text.c_str() + text.size()) return std::nullopt;
  const time_t seconds = mktime(&local);
  // The clock counts nanoseconds, until the year 2262.
  constexpr auto kEnd = std::chrono::floor<std::chrono::seconds>(system_clock::duration::max());
  if (seconds < 0 || seconds >= kEnd.count()) return std::nullopt;
  return seconds;
}

std::string LocalTimeText(time_t seconds) {
  tm local = {};
  localtime_r(&seconds, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

std::optional<LogLine> ParseLogLine(const std::string& line) {
  constexpr size_t kDateSize = 19;
  const auto time = ParseLocalTime(line.substr(0, kDateSize), "%Y-%m-%d %H:%M:%S");
  if (!time || line.size() <= kDateSize) return std::nullopt;
  LogLine parsed;
  int millisecond = 0, end = 0;
  if (std::sscanf(line.c_str() + kDateSize, ".%3d %*d %*d %c %n", &millisecond, &parsed.priority,
                  &end) != 2 ||
      end == 0 || std::strchr("VDIWEF", parsed.priority) == nullptr) {
    return std::nullopt;
  }
  const size_t tag_begin = kDateSize + static_cast<size_t>(end);
  const size_t tag_end = line.find(": ", tag_begin);
  if (tag_end == std::string::npos) return std::nullopt;
  parsed.time = system_clock::from_time_t(*time) + std::chrono::milliseconds(millisecond);
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
