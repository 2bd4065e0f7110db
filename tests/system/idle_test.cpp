// A service with nothing to do does not wake up.

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

// How often the threads of a process have gone to sleep by themselves so far.
long Sleeps(pid_t pid) {
  const std::string counter = "\nvoluntary_ctxt_switches:";
  long all = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const std::string status = ReadFile((task.path() / "status").string());
    if (status.empty()) continue;  // the thread has ended meanwhile
    all += std::stol(status.substr(status.find(counter) + counter.size()));
  }
  return all;
}

// Without a power-statistics provider one thread looks for it every second.
TEST(Idle, WithAStackAndAProvider_NoThreadWakes) {
  Handset handset(Mode::kAccelerated);
  ChildProcess provider({ProgramDir() + "/zvkpowerstats"}, {{"BTHAL_ROOT", handset.root()}});
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  ASSERT_TRUE(provider.WaitForOutput("registered Bluetooth", kDeadline)) << handset.Log();
  const pid_t pid = handset.service().pid();
  const auto quiet_for = [pid](std::chrono::milliseconds time) {
    const long before = Sleeps(pid);
    std::this_thread::sleep_for(time);  // the time is what is measured
    return Sleeps(pid) == before;
  };
  // The low-power timer runs out 1.6 s after the last packet.
  ASSERT_TRUE(WaitFor([&] { return quiet_for(std::chrono::seconds(2)); }));
  EXPECT_TRUE(quiet_for(std::chrono::seconds(3))) << handset.Log();
}

}  // namespace
}  // namespace test
