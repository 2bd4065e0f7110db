#include "system/handset.h"

#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>

#include "support/wait.h"

namespace test {

std::string ModeName(Mode mode) { return mode == Mode::kAccelerated ? "Accelerated" : "Plain"; }

std::string ServiceProgram() {
  return ProgramDir() + "/android.hardware.bluetooth@1.1-service.zvkbtlinux";
}

bool UsesCoProcessor() { return std::getenv("BTHAL_TEST_CO_PROCESSOR") != nullptr; }

std::unique_ptr<ChildProcess> StartStackOn(const std::string& root,
                                           const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {ProgramDir() + "/../tests/system_test_stack"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<ChildProcess>(command,
                                        std::map<std::string, std::string>{{"BTHAL_ROOT", root}});
}

std::vector<std::string> ContentsOf(const std::string& folder) {
  std::vector<std::string> files = FilesIn(folder);
  for (std::string& file : files) file = ReadFile(file);
  return files;
}

Handset::Handset(Mode mode, const std::vector<std::string>& simulator_options) {
  StartSimulator(mode, simulator_options);
}

Handset::Handset(const std::string& scenario, Mode mode,
                 const std::vector<std::string>& simulator_options) {
  WriteFile(Path("scenario"), scenario);
  std::vector<std::string> options = {"--scenario", Path("scenario"), "--trace", Path("trace")};
  options.insert(options.end(), simulator_options.begin(), simulator_options.end());
  StartSimulator(mode, options);
}

void Handset::StartSimulator(Mode mode, const std::vector<std::string>& options) {
  std::vector<std::string> command = {ProgramDir() + "/zvksim", "--root", root()};
  if (UsesCoProcessor()) command.push_back("--co-processor");
  command.insert(command.end(), options.begin(), options.end());
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

std::string Handset::Status() const { return ReadFile(Path("run/zvksim/status")); }

bool Handset::WaitForStatus(const std::string& text) const {
  return WaitFor([&] { return Status().find(text) != std::string::npos; });
}

std::vector<TraceLine> Handset::Trace() const {
  std::string text = ReadFile(Path("trace"));
  text.resize(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
  std::istringstream in(text);
  std::vector<TraceLine> lines;
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    TraceLine parsed{};
    words >> parsed.seconds >> parsed.direction >> std::ws;
    std::getline(words, parsed.text);
    if (parsed.direction != '-')
      parsed.text.erase(std::min(parsed.text.size(), parsed.text.find(" (")));
    lines.push_back(parsed);
  }
  return lines;
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

std::unique_ptr<ChildProcess> Handset::StartStack(const std::vector<std::string>& arguments) const {
  return StartStackOn(root(), arguments);
}

std::string Tail(const std::string& log) {
  constexpr size_t kShown = 6000;
  return log.size() > kShown ? "…" + log.substr(log.size() - kShown) : log;
}

unsigned NewSeed() {
  const char* given = getenv("BTHAL_TEST_SEED");
  const unsigned seed =
      given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
  printf("seed %u\n", seed);
  return seed;
}

}  // namespace test
