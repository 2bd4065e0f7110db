#include "system/watched_service.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <map>
#include <random>

#include "support/vectors.h"
#include "support/wait.h"

namespace test {
namespace {

// There are 21 while Bluetooth is up.
constexpr int kMostDescriptors = 26;

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

std::string WatchedService::WaitForEnd() {
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

std::string WatchedService::WaitForRest() {
  const std::string process = "/proc/" + std::to_string(service().pid());
  std::map<std::string, int> threads;
  int descriptors = 0;
  const auto rests = [&] {
    threads.clear();
    std::error_code gone;  // a thread may end while they are listed
    for (const auto& task : std::filesystem::directory_iterator(process + "/task", gone)) {
      ++threads[ReadFile((task.path() / "comm").string())];
    }
    descriptors = CountDescriptors(service().pid());
    for (const auto& [name, count] : threads) {
      const bool named = name.rfind("android.hardwar", 0) != 0;  // the main one, or the NDK's
      if (count > (named ? 1 : 2)) return false;
    }
    return descriptors <= kMostDescriptors;
  };
  if (WaitFor(rests)) return "";
  return ::testing::PrintToString(threads) + ", " + std::to_string(descriptors) + " descriptors\n" +
         Tail(Log());
}

bool WatchedService::WaitForReleasedWakeLock() const {
  return WaitFor([&] {
    const std::string status = Status();
    return !status.empty() && status.find("\"held\": true") == std::string::npos;
  });
}

unsigned NewSeed() {
  const char* given = getenv("BTHAL_TEST_SEED");
  const unsigned seed =
      given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
  printf("seed %u\n", seed);
  return seed;
}

}  // namespace test
