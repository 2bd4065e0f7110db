#include "bthal/log_capture.h"

#include <android-base/logging.h>
#include <log/log.h>

#include <map>
#include <mutex>
#include <regex>

namespace test {
namespace {

struct Lines {
  std::mutex lock;
  std::map<std::string, std::vector<std::string>> by_tag;
};

Lines& TheLines() {
  static auto* lines = new Lines;
  return *lines;
}

void Note(const __android_logger_data* data, const char* message) {
  constexpr char kLetters[] = "??VDIWEF";
  const std::string line = std::string(1, kLetters[data->priority & 7]) + " " + message;
  const std::lock_guard<std::mutex> guard(TheLines().lock);
  TheLines().by_tag[data->tag == nullptr ? "" : data->tag].push_back(line);
}

}  // namespace

LogCapture::LogCapture() {
  android::base::SetMinimumLogSeverity(android::base::VERBOSE);
  __android_log_set_logger(Note);
}

LogCapture::~LogCapture() {
  __android_log_set_logger(__android_log_stderr_logger);
  const std::lock_guard<std::mutex> guard(TheLines().lock);
  TheLines().by_tag.clear();
}

std::vector<std::string> LogCapture::Take(const std::string& tag) {
  const std::lock_guard<std::mutex> guard(TheLines().lock);
  return std::exchange(TheLines().by_tag[tag], {});
}

bool Matches(const std::string& line, const std::string& pattern) {
  const size_t gap = pattern.find("...");
  if (gap == std::string::npos) return line == pattern;
  if (line.compare(0, gap, pattern, 0, gap) != 0) return false;
  const std::string rest = pattern.substr(gap + 3);
  for (size_t at = gap; at <= line.size(); ++at) {
    if (Matches(line.substr(at), rest)) return true;
  }
  return false;
}

std::string WithoutTimes(const std::string& text, const std::string& before,
                         const std::string& after) {
  return std::regex_replace(text, std::regex(before + "[0-9]{2}(:[0-9]{2}){2}:[0-9]{3}" + after),
                            before + "@TIME@" + after);
}

}  // namespace test
