// Bluetooth on and off, and who may have it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kReady[] = "BTZVK controller is ready";

class BringUp : public ::testing::TestWithParam<Mode> {
 protected:
  Handset handset_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(InEachMode, BringUp, ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

TEST_P(BringUp, StackComesAndGoes_ControllerAnswersEachTime) {
  handset_.StartService();
  if (GetParam() == Mode::kAccelerated) {
    // Before any stack.
    EXPECT_TRUE(handset_.service().WaitForOutput(kReady, kDeadline)) << handset_.Log();
  }
  for (int round = 1; round <= 3; ++round) {
    const CtlResult up = handset_.Ctl({"up", "--detach"});
    ASSERT_EQ(up.exit_code, 0) << up.output << handset_.Log();
    EXPECT_THAT(up.output, HasSubstr("Bluetooth is up after"));
    // The patch gives the controller its name, provisioning its address.
    const CtlResult info = handset_.Ctl({"info"});
    EXPECT_EQ(info.exit_code, 0) << info.output;
    EXPECT_THAT(info.output, HasSubstr("ZVK_B5"));
    EXPECT_THAT(info.output, HasSubstr("5A:56:4B:00:00:01"));
    const CtlResult down = handset_.Ctl({"down"});
    ASSERT_EQ(down.exit_code, 0) << down.output << handset_.Log();
  }
  // Accelerated keeps the controller up between stacks; plain powers it up for each.
  EXPECT_EQ(CountOf(kReady, handset_.Log()), GetParam() == Mode::kAccelerated ? 1 : 3)
      << handset_.Log();
}

TEST_P(BringUp, SecondStack_IsRefusedAndTheFirstStaysAttached) {
  handset_.StartService();
  ASSERT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
  const CtlResult second = handset_.Ctl({"--no-holder", "cmd", "reset"});
  EXPECT_EQ(second.exit_code, 4) << second.output;
  EXPECT_THAT(second.output, HasSubstr("another Bluetooth stack is attached"));
  const CtlResult first = handset_.Ctl({"cmd", "read_bd_addr"});
  EXPECT_EQ(first.exit_code, 0) << first.output << handset_.Log();
}

TEST_P(BringUp, TwoRootFolders_WorkSideBySide) {
  Handset other(GetParam());
  handset_.StartService();
  other.StartService();
  ASSERT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
  ASSERT_EQ(other.Ctl({"up", "--detach"}).exit_code, 0) << other.Log();
  EXPECT_EQ(handset_.Ctl({"loopback", "--bytes", "100k"}).exit_code, 0);
  other.KillService();
  EXPECT_EQ(other.Ctl({"--wait", "0", "status"}).exit_code, 3);
  EXPECT_EQ(handset_.Ctl({"cmd", "read_bd_addr"}).exit_code, 0) << handset_.Log();
}

TEST_P(BringUp, ServiceDies_ClientSaysSoAndTheNextServiceIsUsable) {
  handset_.StartService();
  ChildProcess up(handset_.CtlCommand({"up"}));
  ASSERT_TRUE(up.WaitForOutput("Bluetooth is up after", kDeadline)) << up.Output();
  handset_.KillService();
  const auto end = up.Wait(kDeadline);
  ASSERT_TRUE(end) << up.Output();
  EXPECT_EQ(end->exit_code, 3) << up.Output();
  EXPECT_THAT(up.Output(), HasSubstr("the service died"));
  handset_.StartService();
  EXPECT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
}

// Mode: accelerated.
TEST(ServiceEnd, TerminateSignal_PowersTheControllerOffAndTheProcessStays) {
  Handset handset(Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  const size_t before = CountOf("PowerControl: Disabling", handset.Log());
  handset.service().Signal(SIGTERM);
  EXPECT_TRUE(WaitFor([&] { return CountOf("PowerControl: Disabling", handset.Log()) > before; }))
      << handset.Log();
  EXPECT_FALSE(handset.service().Wait(std::chrono::milliseconds(500))) << "the process ended";
}

// Mode: accelerated.
TEST(DebugReport, AfterTraffic_HoldsEverySection) {
  Handset handset(Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  ASSERT_EQ(handset.Ctl({"cmd", "reset"}).exit_code, 0);
  const std::string file = handset.Path("report.txt");
  ASSERT_EQ(handset.Ctl({"debug", "-o", file}).exit_code, 0);
  const std::string report = ReadFile(file);
  for (const char* text : {"Controller Firmware Information", "ZVK_B5", "Anchors' Last Appear",
                           "Anchors' History", "initialize_impl [ IN]", "initialize_impl [OUT]",
                           "sendHciCommand: 0x0C03 - 4 bytes", "Debugfs:"}) {
    EXPECT_THAT(report, HasSubstr(text));
  }
}

}  // namespace
}  // namespace test
