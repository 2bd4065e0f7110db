#include <android-base/file.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/doctor/findings.h"
#include "tools/link/attachment.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

bool HasRealTimeThread(int pid) {
  std::error_code ignored;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks, ignored)) {
    const int policy = sched_getscheduler(std::stoi(task.path().filename().string()));
    if (policy == SCHED_FIFO || policy == SCHED_RR) return true;
  }
  return false;
}

void CheckService(Findings& findings) {
  int pid = 0;
  try {
    FindService(std::chrono::milliseconds(0))
        ->getDebugInfo([&](const auto& info) { pid = info.pid; })
        .isOk();
  } catch (const Failure&) {
    findings.push_back({"service", Level::kOk, "does not run", ""});
    rlimit limit{};
    const bool may =
        geteuid() == 0 || (getrlimit(RLIMIT_RTPRIO, &limit) == 0 && limit.rlim_cur > 0);
    findings.push_back(
        {"priority", may ? Level::kOk : Level::kWarning,
         may ? "real-time priority is allowed" : "no real-time priority for this user",
         may ? "" : "start the service with CAP_SYS_NICE, or raise RLIMIT_RTPRIO"});
    return;
  }
  std::string status, user;
  ::android::base::ReadFileToString("/proc/" + std::to_string(pid) + "/status", &status);
  if (const size_t at = status.find("Uid:"); at != std::string::npos) {
    user = std::to_string(std::atoi(status.c_str() + at + 4));
  }
  findings.push_back(
      {"service", Level::kOk, "runs, process " + std::to_string(pid) + ", user " + user, ""});
  const bool real_time = HasRealTimeThread(pid);
  findings.push_back(
      {"priority", real_time ? Level::kOk : Level::kWarning,
       real_time ? "its reader has real-time priority" : "no thread has real-time priority",
       real_time ? "" : "start the service with CAP_SYS_NICE, or raise RLIMIT_RTPRIO"});
}

void Print(const Finding& finding) {
  const Colour colour = finding.level == Level::kOk        ? Colour::kGreen
                        : finding.level == Level::kWarning ? Colour::kYellow
                                                           : Colour::kRed;
  char name[16];
  std::snprintf(name, sizeof name, "%-8s", LevelName(finding.level));
  std::printf("%s%-12s %s\n", Paint(colour, name).c_str(), finding.what.c_str(),
              finding.text.c_str());
  if (!finding.advice.empty()) std::printf("%20s -> %s\n", "", finding.advice.c_str());
}

void Doctor(const Options& /*options*/, const CommandValues& values) {
  Findings findings;
  CheckPort(findings);
  CheckPower(findings);
  CheckFirmware(findings);
  CheckAddress(findings);
  CheckKernelFiles(findings);
  CheckService(findings);
  CheckStorage(findings);
  Json all = Json::array();
  for (const Finding& finding : findings) {
    if (!values.json) Print(finding);
    all.push_back(ToJson(finding));
  }
  if (values.json) std::puts(all.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
  const auto faults = std::count_if(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.level == Level::kFault;
  });
  if (faults == 1) throw Failure("a fault");
  if (faults > 1) throw Failure(std::to_string(faults) + " faults");
}

}  // namespace

void AddDoctor(CLI::App& app, const Options& options) {
  AddCommand(app, options, Doctor, "doctor",
             "what a bring-up needs: port, power, firmware, address, files", "for a script")
      .command.footer(
          "Needs no service. Tries the speeds of a port that nobody holds, and puts its settings\n"
          "back. Exit code 1 when there is a fault; a warning is something that works otherwise "
          "or\n"
          "less well.");
}

}  // namespace bthalctl
