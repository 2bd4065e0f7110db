#include "system/watched_service.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <thread>

#include "support/vectors.h"
#include "support/wait.h"

namespace test {
namespace {

// By name. A thread may end while they are listed.
std::vector<std::string> Threads(pid_t pid) {
  std::vector<std::string> names;
  std::error_code gone;
  const std::string folder = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(folder, gone)) {
    const std::string name = ReadFile((task.path() / "comm").string());
    names.push_back(name.substr(0, name.find('\n')));
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> Descriptors(pid_t pid) {
  std::vector<std::string> all;
  std::error_code ignored;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ignored)) {
    all.push_back(std::filesystem::read_symlink(entry.path(), ignored).string());
  }
  std::sort(all.begin(), all.end());
  return all;
}

// What follows text up to the end of its line, where it stands last; empty when it does not.
std::string RestOfLine(const std::string& all, const std::string& text) {
  const size_t at = all.rfind(text);
  if (at == std::string::npos) return "";
  const size_t begin = at + text.size();
  return all.substr(begin, all.find('\n', begin) - begin);
}

bool Has(const std::string& all, const char* text) { return all.find(text) != std::string::npos; }

}  // namespace

std::string Tail(const std::string& log) {
  constexpr size_t kShown = 6000;
  return log.size() > kShown ? "…" + log.substr(log.size() - kShown) : log;
}

WatchedService::WatchedService(Mode mode, const std::vector<std::string>& simulator_options)
    : handset_(mode, simulator_options) {}

std::string WatchedService::WaitForEnd() {
  const std::optional<ChildResult> end = handset_.service().Wait(kDeadline);
  const std::string log = handset_.Log();
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
  // The line was taken away: there is nobody left to report to.
  if (end->signal == SIGABRT && Has(log, "Read packet type error: ")) return "";
  if (end->signal != SIGABRT || reported.empty()) return wrong("the service died without a report");
  if (!Has(log, "Bluetooth HAL crash with error code 0, vendor error code ")) {
    return wrong("it did not say why it aborted");
  }
  const std::string core_dump = RestOfLine(log, "Starting to generate Bluetooth ssrdump files: ");
  std::string crash_info = Replaced(core_dump, "coredump/coredump_bt_", "crashinfo_bt_");
  crash_info = Replaced(crash_info, ".bin", ".txt");
  for (const std::string& file : {core_dump, crash_info}) {
    if (file.empty() || !std::filesystem::exists(handset_.root() + file)) {
      return wrong("there is no " + file);
    }
  }
  return "";
}

WatchedService::Possessions WatchedService::Owns() {
  const pid_t pid = handset_.service().pid();
  return {Threads(pid), Descriptors(pid)};
}

std::string WatchedService::WaitForNoMoreThan(const Possessions& before) {
  Possessions now{};
  if (WaitFor([&] {
        now = Owns();
        return now.threads.size() <= before.threads.size() &&
               now.descriptors.size() <= before.descriptors.size();
      })) {
    return "";
  }
  return ::testing::PrintToString(now.threads) + "; " + ::testing::PrintToString(now.descriptors) +
         "\nbefore\n" + ::testing::PrintToString(before.threads) + "; " +
         ::testing::PrintToString(before.descriptors) + "\n" + Tail(handset_.Log());
}

bool WatchedService::WaitForReleasedWakeLock() {
  return WaitFor([&] {
    const std::string status = ReadFile(handset_.Path("run/zvksim/status"));
    return !status.empty() && status.find("\"held\": true") == std::string::npos;
  });
}

void OnEach(int count, const std::function<void(int index)>& run) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&run, i] {
      try {
        run(i);
      } catch (const std::exception& error) {
        ADD_FAILURE() << "handset " << i << ": " << error.what();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

unsigned NewSeed() {
  const char* given = getenv("BTHAL_TEST_SEED");
  const unsigned seed =
      given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
  printf("seed %u\n", seed);
  return seed;
}

}  // namespace test
