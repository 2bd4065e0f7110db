#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/log/log_line.h"

namespace bthalctl {

// An event of a bring-up.
struct Progress {
  enum class Kind {
    kBegin,   // a step begins
    kEnd,     // it ended as it should
    kFailed,  // it failed
    kMark,    // something that is no step
    kTrouble  // a warning or an error line of the log
  };
  Kind kind = Kind::kMark;
  std::chrono::milliseconds at{};    // since the first line
  std::chrono::milliseconds took{};  // of a step that ended
  std::string name;                  // of the step; the text of a mark or of a line
  std::string detail;                // what the step found; what the line means, where known
};

// Makes the steps of a bring-up out of the service's log lines. A step that meets an error line has
// failed; one that is running when the next begins has ended.
class BringUpSteps {
 public:
  std::vector<Progress> Feed(const LogLine& line);
  // The step that is running, if there is one, as it is by now.
  std::optional<Progress> Running(std::chrono::system_clock::time_point now) const;
  // Whether a bring-up begins with this line.
  static bool IsStart(const LogLine& line);

 private:
  struct Step {
    std::string name;
    std::string detail;
    std::chrono::milliseconds begin{};
  };

  void Begin(Step step, std::vector<Progress>* out);
  void End(Progress::Kind kind, std::chrono::milliseconds now, std::vector<Progress>* out);

  std::optional<std::chrono::system_clock::time_point> start_;
  std::optional<Step> current_;
  std::set<std::string> troubles_;  // of this step: a line that comes again is shown once
};

}  // namespace bthalctl
