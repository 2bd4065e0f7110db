// bthalctl's commands for the vendor extensions, against a controller that checks what it is sent.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

// A peer that the simulated controller tells events of.
constexpr char kPeer[] = "C2:56:4B:AD:00:03";

// Bluetooth is up in a holder; every packet is in the trace. Mode: accelerated.
class CtlExtensions : public ::testing::Test {
 protected:
  explicit CtlExtensions(const std::string& scenario = "") {
    WriteFile(folder_ / "scenario", scenario);
    handset_.emplace(
        Mode::kAccelerated,
        std::vector<std::string>{"--scenario", folder_ / "scenario", "--trace", folder_ / "trace"});
    handset_->StartService();
    EXPECT_EQ(handset_->Ctl({"up", "--detach"}).exit_code, 0) << handset_->Log();
  }

  CtlResult Ctl(const std::vector<std::string>& arguments) { return handset_->Ctl(arguments); }
  // Whether the controller was sent this command.
  bool Sent(const std::string& bytes) {
    return WaitFor([&] { return CountOf("> command " + bytes, ReadFile(folder_ / "trace")) > 0; });
  }

  const TempDir folder_;
  std::optional<Handset> handset_;
};

TEST_F(CtlExtensions, Commands_ReachTheControllerAndTellItsAnswer) {
  const struct {
    std::vector<std::string> arguments;
    const char* output;
    const char* bytes;
  } rows[] = {
      {{"afh", "--avoid", "0-10,40"},
       "67 of 79 channels may be used, avoided: 0-10,40",
       "3f 0c 0a 00 f8 ff ff ff fe ff ff ff 7f"},
      {{"afh", "--all", "--json"}, "\"accepted\":true", "3f 0c 0a ff ff ff ff ff ff ff ff ff 7f"},
      {{"sar", "40"},
       "power caps: all 40; the controller accepted it",
       "69 fe 0d 01 0a 0a 0a 0a 0a 0a 0a 0a 0a 0a 0a 0a"},
      {{"sar", "40", "20", "8"},
       "BR 40, EDR 20, BLE 8",
       "69 fe 0d 01 0a 05 02 0a 05 02 0a 05 02 0a 05 02"},
      {{"sar", "--chain0", "4", "8", "12", "--chain1", "16", "20", "24", "--beamforming", "28",
        "32", "36", "40", "44", "80", "--json"},
       "\"beamforming\":[28,32,36,40,44,80]",
       "69 fe 0d 01 01 02 03 04 05 06 07 08 09 0a 0b 14"},
      {{"inject", "0x0C14"}, "Read Local Name (0x0C14): Success", "14 0c 00"},
      {{"ewp", "on", "--interval", "500"}, "interval 500", "20 fe 06 14 01 ff 00 f4 01"},
      {{"ewp", "off", "--json"}, "\"on\":false", "20 fe 06 14 00 ff 00 00 00"},
  };
  for (const auto& row : rows) {
    const CtlResult result = Ctl(row.arguments);
    EXPECT_EQ(result.exit_code, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr(row.output));
    EXPECT_TRUE(Sent(row.bytes)) << row.bytes;
  }
}

TEST_F(CtlExtensions, WrongUsage_NothingIsSent) {
  const struct {
    std::vector<std::string> arguments;
    const char* output;
  } rows[] = {
      {{"afh"}, "which channels?"},
      {{"afh", "--all", "--avoid", "1"}, "--all goes with no other"},
      {{"afh", "--avoid", "0-59"}, "that leaves 19 channels"},
      {{"afh", "--map", "FFFF"}, "10 bytes, not 2"},
      {{"sar"}, "give one cap, or three"},
      {{"sar", "1", "2"}, "give one cap, or three"},
      {{"sar", "81"}, "81"},
      {{"sar", "--chain0", "1", "2", "3"}, "go together"},
      {{"sar", "1", "--chain0", "1", "2", "3"}, "go together"},
      {{"inject", "no such command"}, "neither an opcode"},
      {{"inject", "reset", "0G"}, "no hex"},
      {{"ccc", "watch", "11:22"}, "is no address"},
      {{"ccc", "watch", kPeer, "--events", "nonsense"}, "nonsense not in {connect,phy}"},
      {{"ewp"}, "subcommand"},
      {{"ewp", "on", "--interval", "65536"}, "65536"},
      {{"residency", "--interval", "0"}, "interval"},
  };
  for (const auto& row : rows) {
    const CtlResult result = Ctl(row.arguments);
    EXPECT_EQ(result.exit_code, 2) << result.output;
    EXPECT_THAT(result.output, HasSubstr(row.output));
    EXPECT_EQ(CountOf("bthalctl: ", result.output), 1u) << result.output;
  }
  for (const char* opcode : {"3f 0c", "69 fe", "20 fe", "63 fd"}) {
    EXPECT_EQ(CountOf(std::string("> command ") + opcode, ReadFile(folder_ / "trace")), 0u)
        << opcode;
  }
}

TEST(CtlExtensionsOff, EachCommand_SaysThatBluetoothIsOff) {
  Handset handset(Mode::kPlain);
  handset.StartService();
  for (const char* const words :
       {"afh --all", "sar 1", "inject reset", "ccc watch C2:56:4B:AD:00:03", "ewp on", "ewp off",
        "ewp watch", "residency"}) {
    const std::vector<std::string> arguments = SplitTrimmed(words, ' ');
    const CtlResult result = handset.Ctl(arguments);
    EXPECT_EQ(result.exit_code, 1) << words << ": " << result.output;
    EXPECT_THAT(result.output, HasSubstr("(bthalctl up)"));
  }
}

class CtlExtensionsRefused : public CtlExtensions {
 protected:
  CtlExtensionsRefused()
      : CtlExtensions(
            "on 0x0C3F status 0x12\non 0xFE69 no-answer\non 0xFE20 status 0x0C\n"
            "on 0xFD63 status 0x07\non 0x1009 command-status\n") {}
};

TEST_F(CtlExtensionsRefused, EachCommand_SaysWhatTheControllerAnswered) {
  const struct {
    std::vector<std::string> arguments;
    const char* output;
  } rows[] = {
      {{"afh", "--all"}, "refused: Invalid HCI Command Parameters (0x12)"},
      {{"ewp", "on"}, "refused: Command Disallowed (0x0C)"},
      {{"ccc", "watch", kPeer}, "refused: Memory Capacity Exceeded (0x07)"},
      {{"inject", "0x0C01", "FF"}, "refused: Invalid HCI Command Parameters (0x12)"},
      {{"inject", "read_bd_addr"}, "did not answer with Command Complete within 2 s"},
      // Last: nothing goes out behind a command that is not answered.
      {{"sar", "1"}, "the controller did not answer within 3 s"},
  };
  for (const auto& row : rows) {
    const CtlResult result = Ctl(row.arguments);
    EXPECT_EQ(result.exit_code, 1) << result.output;
    EXPECT_THAT(result.output, HasSubstr(row.output));
  }
}

class CtlExtensionsEvents : public CtlExtensions {
 protected:
  CtlExtensionsEvents()
      : CtlExtensions(
            "after 0xFD63 nth 1 100ms link-layer C2:56:4B:AD:00:03 connect tx\n"
            "after 0xFD63 nth 1 200ms link-layer C2:56:4B:AD:00:03 phy rx\n"
            "after 0xFE20 nth 1 100ms ewp 40\n"
            "after 0xFC01 nth 1 1ms activity tx 5 700ms\n") {}
};

TEST_F(CtlExtensionsEvents, CccWatch_ShowsEventsAndEndsTheRegistration) {
  const CtlResult watch = Ctl({"ccc", "watch", kPeer, "-n", "2", "-t", "20"});
  EXPECT_EQ(watch.exit_code, 0) << watch.output;
  EXPECT_THAT(watch.output,
              AllOf(HasSubstr("watching C2:56:4B:AD:00:03"),
                    ContainsRegex("C2:56:4B:AD:00:03  CONNECT_IND TX  connection event [0-9]+, "
                                  "bluetooth time [0-9]+, system time [0-9]+"),
                    HasSubstr("C2:56:4B:AD:00:03  LL_PHY_UPDATE_IND RX")));
  EXPECT_TRUE(Sent("63 fd 0b 01 03 00 ad 4b 56 c2 01 00 ff 18"));
  EXPECT_TRUE(Sent("63 fd 08 02 03 00 ad 4b 56 c2 01"));
}

TEST_F(CtlExtensionsEvents, EwpWatch_ShowsRecordsAndSwitchesThemOff) {
  const CtlResult watch = Ctl({"ewp", "watch", "-t", "1"});
  EXPECT_EQ(watch.exit_code, 0) << watch.output;
  EXPECT_THAT(watch.output, HasSubstr("EWP record of 40 bytes on handle 0xE00\n"));
  EXPECT_TRUE(Sent("20 fe 06 14 00 ff 00 00 00"));
}

TEST_F(CtlExtensionsEvents, Residency_TotalsOfTheControllerThatNeverGoBack) {
  const CtlResult first = Ctl({"residency"});
  EXPECT_EQ(first.exit_code, 0) << first.output;
  // Each column; the last entry is some time after the machine's boot.
  EXPECT_THAT(first.output, ContainsRegex("state +total +entries +last entered"));
  EXPECT_THAT(first.output, ContainsRegex("transmit +0\\.7[0-9]{2} s +5 +[0-9]+\\.[0-9]{3} s\n"));
  // Again, over the death of the first provider, and once more for a script.
  const CtlResult second = Ctl({"residency", "--json", "-n", "2", "-i", "0.1"});
  EXPECT_EQ(second.exit_code, 0) << second.output;
  EXPECT_THAT(second.output, ContainsRegex("\"entries\":5,\"id\":2,\"last_entry_ms\":[0-9]{4,},"
                                           "\"state\":\"transmit\",\"total_ms\":7[0-9]{2}[},]"));
  EXPECT_EQ(CountOf("\"state\":\"transmit\",\"total_ms\":7", second.output), 2u) << second.output;
}

TEST_F(CtlExtensions, Activity_ShowsWhatTheReportHas) {
  // 4 s of advertising and the 2 s of quiet behind it are a period.
  ASSERT_EQ(Ctl({"scan", "-t", "4"}).exit_code, 0);
  ASSERT_TRUE(handset_->service().WaitForOutput("UpdateLeAdvStat: start: ", kDeadline));
  const CtlResult activity = Ctl({"activity"});
  EXPECT_EQ(activity.exit_code, 0) << activity.output;
  EXPECT_THAT(activity.output, HasSubstr("connected devices: none"));
  EXPECT_THAT(
      activity.output,
      ContainsRegex("advertising heard, over 5 s: 1, together [5-9]\\.[0-9] s, [0-9]+ rep"));
  const CtlResult json = Ctl({"activity", "--json"});
  EXPECT_THAT(json.output, AllOf(HasSubstr("\"advertising\": [\n"), HasSubstr("\"ms\": ")));
}

}  // namespace
}  // namespace test
