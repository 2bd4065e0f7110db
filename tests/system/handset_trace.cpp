#include "system/handset_trace.h"

#include <algorithm>
#include <sstream>

#include "support/temp_dir.h"

namespace test {

std::vector<TraceLine> ReadTrace(const std::string& file) {
  std::string text = ReadFile(file);
  text.resize(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
  std::istringstream in(text);
  std::vector<TraceLine> lines;
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    TraceLine parsed{};
    words >> parsed.seconds >> parsed.direction >> std::ws;
    std::getline(words, parsed.text);
    lines.push_back(parsed);
  }
  return lines;
}

std::vector<Interval> Joined(std::vector<Interval> intervals, double tolerance) {
  std::sort(intervals.begin(), intervals.end(),
            [](const Interval& a, const Interval& b) { return a.begin < b.begin; });
  std::vector<Interval> joined;
  for (const Interval& interval : intervals) {
    if (!joined.empty() && interval.begin < joined.back().end + tolerance) {
      joined.back().end = std::max(joined.back().end, interval.end);
    } else {
      joined.push_back(interval);
    }
  }
  return joined;
}

}  // namespace test
