#include "tools/doctor/findings.h"

#include <nlohmann/json.hpp>

namespace bthalctl {

const char* LevelName(Level level) {
  return level == Level::kOk ? "ok" : level == Level::kWarning ? "warning" : "fault";
}

nlohmann::json ToJson(const Finding& finding) {
  return {{"what", finding.what},
          {"level", LevelName(finding.level)},
          {"text", finding.text},
          {"advice", finding.advice}};
}

}  // namespace bthalctl
