#include "system/handset.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>

#include "support/vectors.h"
#include "support/wait.h"

namespace test {
namespace {

// What every process is given that the test starts: stdin, stdout, stderr, and what the test itself
// was started with. The listing opens one more.
const int kInheritedDescriptors = CountDescriptors(getpid()) - 1;
// There are 18 more while Bluetooth is up.
const int kMostDescriptors = kInheritedDescriptors + 23;

#ifdef __SANITIZE_THREAD__
constexpr int kUnnamedThreads = 3;  // the main one, the NDK's, ThreadSanitizer's
#else
constexpr int kUnnamedThreads = 2;  // the main one, the NDK's
#endif

// What follows text up to the end of its line, where it stands last; empty when it does not.
std::string RestOfLine(const std::string& all, const std::string& text) {
  const size_t at = all.rfind(text);
  if (at == std::string::npos) return "";
  const size_t begin = at + text.size();
  return all.substr(begin, all.find('\n', begin) - begin);
}

bool Has(const std::string& all, const char* text) { return all.find(text) != std::string::npos; }

}  // namespace

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
  std::vector<std::string> paths;
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator(folder, none)) {
    if (entry.is_regular_file()) paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  for (std::string& path : paths) path = ReadFile(path);
  return paths;
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

std::string Handset::WaitForEnd() {
  const std::optional<ChildResult> end = service().Wait(kDeadline);
  const std::string log = Log();
  if (!end) return "the service does not end\n" + Tail(log);
  const auto wrong = [&](const std::string& what) {
    return what + ", signal " + std::to_string(end->signal) + ", exit " +
           std::to_string(end->exit_code) + "\n" + Tail(log);
  };
  const std::string reported = RestOfLine(log, "root inflamed event with reason: ");
  if (end->signal == SIGKILL) {
    const bool big_hammer = Has(reported, "(127)");
    const bool no_stack = Has(log, "Calling kill due to an error") || Has(log, "calling kill");
    return big_hammer || no_stack ? "" : wrong("killed without a reason");
  }
  if (end->signal == SIGTERM) {
    return Has(log, "sigaction(SIGTERM)") ? wrong("SIGTERM was not handled") : "";
  }
  // A port that cannot be read ends the process without a report.
  if (end->signal == SIGABRT && Has(log, "Read packet type error: ")) return "";
  if (end->signal != SIGABRT || reported.empty()) return wrong("the service died without a report");
  if (!Has(log, "Bluetooth HAL crash with error code 0, vendor error code ")) {
    return wrong("it did not say why it aborted");
  }
  const std::string core_dump = RestOfLine(log, "Starting to generate Bluetooth ssrdump files: ");
  std::string crash_info = Replaced(core_dump, "coredump/coredump_bt_", "crashinfo_bt_");
  crash_info = Replaced(crash_info, ".bin", ".txt");
  for (const std::string& file : {core_dump, crash_info}) {
    if (file.empty() || !std::filesystem::exists(root() + file))
      return wrong("there is no " + file);
  }
  return "";
}

std::string Handset::WaitForRest() {
  const std::string process = "/proc/" + std::to_string(service().pid());
  std::string listed;  // a line a thread: number, name, where it waits in the kernel
  int descriptors = 0;
  const auto rests = [&] {
    std::map<std::string, int> threads;
    listed.clear();
    std::error_code gone;  // a thread may end while they are listed
    for (const auto& task : std::filesystem::directory_iterator(process + "/task", gone)) {
      std::string name = ReadFile((task.path() / "comm").string());
      name.resize(name.find_last_not_of('\n') + 1);
      ++threads[name];
      listed += task.path().filename().string() + " " + name + " " +
                ReadFile((task.path() / "wchan").string()) + "\n";
    }
    descriptors = CountDescriptors(service().pid());
    for (const auto& [name, count] : threads) {
      const bool named = name.rfind("android.hardwar", 0) != 0;
      if (count > (named ? 1 : kUnnamedThreads)) return false;
    }
    return descriptors <= kMostDescriptors;
  };
  if (WaitFor(rests)) return "";
  return listed + std::to_string(descriptors) + " descriptors\n" + Tail(Log());
}

unsigned NewSeed() {
  const char* given = getenv("BTHAL_TEST_SEED");
  const unsigned seed =
      given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
  printf("seed %u\n", seed);
  return seed;
}

}  // namespace test
