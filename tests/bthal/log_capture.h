#pragma once

#include <string>
#include <vector>

namespace test {

// Notes every line that this process logs, of all levels, from construction to destruction. One at
// a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The lines of one tag so far, as "W text"; those taken before do not come again.
  std::vector<std::string> Take(const std::string& tag);
};

// Whether line is pattern, in which "..." is any text.
bool Matches(const std::string& line, const std::string& pattern);

// text with "@TIME@" for each time of day in it that stands between before and after.
std::string WithoutTimes(const std::string& text, const std::string& before = "",
                         const std::string& after = "");

}  // namespace test
