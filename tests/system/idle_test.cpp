// What the service does when there is nothing to do: nothing.

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <thread>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

// How often each thread of a process has gone to sleep by itself so far.
std::string Sleeps(pid_t pid) {
  std::string all;
  std::error_code ignored;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ignored)) {
    std::istringstream status(ReadFile((task.path() / "status").string()));
    std::string name;
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("Name:", 0) == 0) name = line.substr(6);
      if (line.rfind("voluntary_ctxt_switches", 0) == 0) {
        all += task.path().filename().string() + " " + name + " " + line + "\n";
      }
    }
  }
  return all;
}

class Idle : public ::testing::TestWithParam<Mode> {};

INSTANTIATE_TEST_SUITE_P(InEachMode, Idle, ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

// Without a power-statistics provider one thread looks for it every second.
TEST_P(Idle, WithAStackAndAProvider_NoThreadWakes) {
  Handset handset(GetParam());
  ChildProcess provider({ProgramDir() + "/zvkpowerstats"}, {{"BTHAL_ROOT", handset.root()}});
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  ASSERT_TRUE(provider.WaitForOutput("registered Bluetooth", kDeadline)) << handset.Log();
  const pid_t pid = handset.service().pid();
  const auto quiet_for = [pid](std::chrono::milliseconds time) {
    const std::string before = Sleeps(pid);
    std::this_thread::sleep_for(time);  // the time is what is measured
    return Sleeps(pid) == before;
  };
  // The low-power timer runs out 1.6 s after the last packet.
  ASSERT_TRUE(WaitFor([&] { return quiet_for(std::chrono::seconds(2)); }));
  const std::string before = Sleeps(pid);
  ASSERT_FALSE(before.empty());
  EXPECT_TRUE(quiet_for(std::chrono::seconds(5))) << before << "then\n" << Sleeps(pid);
}

}  // namespace
}  // namespace test
