// The same service in front of the same controller, with a co-processor between them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::HasSubstr;

bool StatusHolds(const Handset& handset, const std::string& text) {
  return WaitFor(
      [&] { return ReadFile(handset.Path("run/zvksim/status")).find(text) != std::string::npos; });
}

// What the crash information files say.
std::string CrashReports(const Handset& handset) {
  std::string text;
  for (const auto& entry :
       std::filesystem::directory_iterator(handset.Path("data/vendor/ssrdump"))) {
    if (entry.is_regular_file()) text += ReadFile(entry.path());
  }
  return text;
}

TEST(CoProcessor, BringUpAndPowerOff_SetPowerSpeedAndSleepOfTheLine) {
  Handset handset(Mode::kPlain, {"--co-processor"});
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  EXPECT_TRUE(StatusHolds(handset, "\"line_baud\": 6144000"));
  EXPECT_TRUE(StatusHolds(handset, "\"low_power\": true"));
  EXPECT_TRUE(StatusHolds(handset, "\"patched\": true"));
  EXPECT_EQ(handset.Ctl({"down"}).exit_code, 0);
  EXPECT_TRUE(StatusHolds(handset, "\"connected\": false"));
  EXPECT_TRUE(StatusHolds(handset, "\"on\": false"));
  EXPECT_TRUE(StatusHolds(handset, "\"powered\": false"));
  EXPECT_EQ(handset.Ctl({"info"}).exit_code, 0) << "it comes up again";
}

TEST(CoProcessorSlow, Faults_EndTheServiceWithTheirReport) {
  struct Row {
    const char* scenario;
    int signal;
    const char* reason;  // in a crash information file; or none
  };
  const Row rows[] = {
      {"at 0s co-absent\n", SIGABRT, "Qvr Transport Prepare Failed"},
      {"request power nth 2 status 5\n", SIGKILL, ""},
      {"request power nth 2 no-answer\n", SIGKILL, ""},
      {"request packet nth 3 co-disconnect\n", SIGABRT, "Handle Qvr Connection Event Error"},
      {"after 0xFC27 nth 1 1s co-disconnect\n", SIGABRT, "Handle Qvr Connection Event Error"},
      {"after 0xFC27 nth 1 1s co-absent\n", SIGABRT, "Handle Qvr Connection Event Error"},
      {"after 0xFC27 nth 1 1s co-garbage 100\n", SIGABRT, "Handle Qvr Connection Event Error"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.scenario);
    TempDir folder;
    WriteFile(folder / "scenario", row.scenario);
    Handset handset(Mode::kAccelerated, {"--co-processor", "--firmware-size", "2000", "--scenario",
                                         folder / "scenario"});
    handset.StartService();
    const auto end = handset.service().Wait(kDeadline);
    ASSERT_TRUE(end.has_value()) << handset.Log();
    EXPECT_EQ(end->signal, row.signal) << handset.Log();
    EXPECT_THAT(CrashReports(handset), HasSubstr(row.reason));
  }
}

TEST(CoProcessor, ThatDiesOrRefuses_TheStackIsTold) {
  constexpr char kLost[] = "event FF 04 58 05 00 D6\n";
  struct Row {
    const char* scenario;
    bool survives;
    std::string stack;  // what it says
  };
  const Row rows[] = {
      // It is told of the error first, and then of the attachment, which stands.
      {"request power nth 2 status 5\n", true, "complete 2\ncomplete 0\ninitialize done\n"},
      {"request packet nth 3 co-disconnect\n", false, kLost + std::string("initialize failed\n")},
      {"after 0xFC01 nth 1 500ms co-disconnect\n", false,
       std::string("complete 0\ninitialize done\n") + kLost},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.scenario);
    TempDir folder;
    WriteFile(folder / "scenario", row.scenario);
    Handset handset(Mode::kPlain, {"--co-processor", "--scenario", folder / "scenario"});
    handset.StartService();
    ChildProcess stack({StackProgram()}, {{"BTHAL_ROOT", handset.root()}});
    EXPECT_TRUE(stack.WaitForOutput(row.stack, kDeadline)) << stack.Output() << handset.Log();
    if (row.survives) {
      EXPECT_FALSE(handset.service().Wait(std::chrono::milliseconds(0))) << handset.Log();
      EXPECT_THAT(handset.Log(), HasSubstr("send err 0, resp err 5"));
      continue;
    }
    const auto end = handset.service().Wait(kDeadline);
    ASSERT_TRUE(end.has_value()) << handset.Log();
    EXPECT_EQ(end->signal, SIGABRT) << handset.Log();
    EXPECT_EQ(stack.Output(), row.stack);
    EXPECT_THAT(CrashReports(handset), HasSubstr("Handle Qvr Connection Event Error"));
  }
}

TEST(CoProcessor, ThatDiesInMidTransfer_EndsTheServiceAndWhatUsesIt) {
  TempDir folder;
  WriteFile(folder / "scenario", "request packet nth 300 co-disconnect\n");
  Handset handset(Mode::kPlain, {"--co-processor", "--scenario", folder / "scenario"});
  handset.StartService();
  const CtlResult data = handset.Ctl({"--no-holder", "loopback", "--bytes", "10000000"});
  EXPECT_EQ(data.exit_code, 3) << data.output;
  const auto end = handset.service().Wait(kDeadline);
  ASSERT_TRUE(end.has_value()) << handset.Log();
  EXPECT_EQ(end->signal, SIGABRT) << handset.Log();
  EXPECT_THAT(CrashReports(handset), HasSubstr("Handle Qvr Connection Event Error"));
}

TEST(CoProcessor, BrokenMessages_AreNamedAndTheNextIsHeard) {
  TempDir folder;
  WriteFile(folder / "scenario",
            "after 0xFC27 nth 1 co-event 12 01 02\n"
            "after 0xFC27 nth 1 co-table 8 01 02 03\n"
            "after 0xFC27 nth 1 co-truncated\n"
            "after 0xFC27 nth 1 co-table 9 01 02 03\n");
  Handset handset(Mode::kAccelerated, {"--co-processor", "--scenario", folder / "scenario"});
  handset.StartService();
  EXPECT_EQ(handset.Ctl({"info"}).exit_code, 0) << handset.Log();
  EXPECT_THAT(handset.Log(), HasSubstr("qvr_message_handler: Unimplemented packet type 12"));
  EXPECT_EQ(CountOf("Failed to get qvr msg: err 5", handset.Log()), 2u);
}

}  // namespace
}  // namespace test
