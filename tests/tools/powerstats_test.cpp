// zvkpowerstats against a process that registers with it.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <string>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace test {
namespace {

TEST(PowerStats, Provider_ReadsAndDropsTheDead) {
  TempDir root;
  const std::map<std::string, std::string> environment = {{"BTHAL_ROOT", root.path()}};
  const std::string program = ProgramDir() + "/zvkpowerstats";
  const std::string client_program = ProgramDir() + "/../tests/platform_test_residency";

  ChildProcess provider({program}, environment);
  ASSERT_TRUE(provider.WaitForOutput("ready\n", kDeadline)) << provider.Output();
  std::string refused;
  EXPECT_EQ(test::Run({program}, &refused, environment).exit_code, 1);
  EXPECT_EQ(refused, "zvkpowerstats: another power-statistics service runs here\n");

  ChildProcess client({client_program}, environment);
  ASSERT_TRUE(provider.WaitForOutput("registered Bluetooth\nregistered Other\nunregistered Other\n",
                                     kDeadline))
      << provider.Output();
  provider.Signal(SIGUSR1);
  EXPECT_TRUE(
      provider.WaitForOutput("Bluetooth idle: 4294967296 ms, entered 0 times, last at 1 ms\n"
                             "Bluetooth active: 8589934592 ms, entered -1 times, last at 1 ms\n"
                             "Bluetooth transmit: 17179869184 ms, entered -2 times, last at 1 ms\n"
                             "Bluetooth receive: 34359738368 ms, entered -3 times, last at 1 ms\n",
                             kDeadline))
      << provider.Output();
  provider.Signal(SIGUSR1);  // the client refuses its second reading
  EXPECT_TRUE(provider.WaitForOutput("Bluetooth: no reading: ", kDeadline)) << provider.Output();
  client.Signal(SIGKILL);
  EXPECT_TRUE(provider.WaitForOutput("died Bluetooth\n", kDeadline)) << provider.Output();
  provider.Signal(SIGTERM);
  EXPECT_EQ(provider.Wait(kDeadline)->exit_code, 0);
}

}  // namespace
}  // namespace test
