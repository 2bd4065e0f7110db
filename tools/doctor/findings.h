// What "bthalctl doctor" looks at: the files below the root folder that a bring-up needs, without
// the service. Nothing is changed but the line settings of a port that nobody holds, and those are
// put back.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace bthalctl {

enum class Level { kOk, kWarning, kFault };

struct Finding {
  std::string what;  // port, speed, power, …
  Level level = Level::kOk;
  std::string text;    // what was seen
  std::string advice;  // what to do; empty when all is well
};

const char* LevelName(Level level);
// what, level, text, advice
nlohmann::json ToJson(const Finding& finding);

using Findings = std::vector<Finding>;

void CheckPort(Findings& findings);      // the serial port that the configuration names
void CheckPower(Findings& findings);     // rfkill entries of type bluetooth
void CheckFirmware(Findings& findings);  // the file for each chip
void CheckAddress(Findings& findings);
void CheckKernelFiles(Findings& findings);  // wake lines and locks, coexistence, log buffers
void CheckStorage(Findings& findings);      // room for crash files, and the last crash

// The first value of a setting of bt_vendor.conf and its overlay, as the service reads them.
std::string Setting(const std::string& name, const std::string& otherwise);

}  // namespace bthalctl
