#include "system/handset.h"

#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/wait.h"

namespace test {

std::string ModeName(Mode mode) { return mode == Mode::kAccelerated ? "Accelerated" : "Plain"; }

std::string ServiceProgram() {
  return ProgramDir() + "/android.hardware.bluetooth@1.1-service.zvkbtlinux";
}

bool OnCoProcessor() { return std::getenv("BTHAL_TEST_CO_PROCESSOR") != nullptr; }
std::string StackProgram() { return ProgramDir() + "/../tests/system_test_stack"; }

Handset::Handset(Mode mode, const std::vector<std::string>& simulator_options) {
  std::vector<std::string> command = {ProgramDir() + "/zvksim", "--root", root()};
  if (OnCoProcessor()) command.push_back("--co-processor");
  command.insert(command.end(), simulator_options.begin(), simulator_options.end());
  simulator_.emplace(command);
  if (!simulator_->WaitForOutput("ready ", kDeadline)) {
    throw std::runtime_error("zvksim is not ready: " + simulator_->Output());
  }
  if (mode == Mode::kPlain) {
    std::ofstream(Path("vendor/build.prop"), std::ios::app)
        << "persist.bluetooth.disable.accelerate.bt.on=true\n";
  }
}

void Handset::StartService() {
  service_.emplace(std::vector<std::string>{ServiceProgram()},
                   std::map<std::string, std::string>{{"BTHAL_ROOT", root()}});
}

void Handset::KillService() {
  service_->Signal(SIGKILL);
  service_->Wait(kDeadline);
}

std::vector<std::string> Handset::CtlCommand(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command = {ProgramDir() + "/bthalctl", "--root", root(), "--wait", "20"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

CtlResult Handset::Ctl(const std::vector<std::string>& arguments,
                       std::chrono::milliseconds deadline) const {
  CtlResult result;
  result.exit_code = Run(CtlCommand(arguments), &result.output, {}, deadline).exit_code;
  return result;
}

}  // namespace test
