// Data through the whole line and back: client, service, serial line, controller.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

// In accelerated mode only: data take the same way in both.
TEST(Traffic, OfEachKind_ComesBackWholeAndInOrder) {
  const std::string bytes = std::to_string(Count("bytes of mixed packets", 2'000'000));
  const struct {
    std::vector<std::string> simulator;
    std::vector<std::string> loopback;
  } rows[] = {
      {{}, {"--bytes", bytes}},
      {{}, {"--pattern", "control", "--bytes", "300k"}},  // 0A 0D 11 13 FF
      {{"--chunk", "1"}, {"--bytes", "300k"}},            // a byte at a time from the controller
      {{}, {"--size", "1", "--bytes", "3k"}},
  };
  for (const auto& row : rows) {
    Handset handset(Mode::kAccelerated, row.simulator);
    handset.StartService();
    std::vector<std::string> command = {"loopback"};
    command.insert(command.end(), row.loopback.begin(), row.loopback.end());
    const CtlResult result = handset.Ctl(command);
    EXPECT_EQ(result.exit_code, 0) << result.output << handset.Log().substr(0, 20000);
    EXPECT_THAT(result.output, HasSubstr("nothing lost, nothing reordered"));
  }
}

TEST(Traffic, ThroughTheHolderAndOverAConnection_ComesBackWholeAndInOrder) {
  Handset handset(Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  const CtlResult echo = handset.Ctl({"echo", "ZVK Loop", "--bytes", "100k"});
  EXPECT_EQ(echo.exit_code, 0) << echo.output;
  EXPECT_THAT(handset.Ctl({"read-name", "5A:56:4B:AD:00:04"}).output,
              HasSubstr("is called \"ZVK GATT\""));
}

// Data for longer than 5 s and awake for longer than 10 s, while the controller reports of itself.
TEST(TrafficSlow, OfABusyHandset_IsToldInReportAndLog) {
  Handset handset(
      "after 0xFC27 nth 1 2s quality monitoring\n"
      "after 0xFC27 nth 1 2s latency-trace 2\n"
      "after 0xFC27 nth 1 2s ewp 40\n"
      "after 0xFC27 nth 1 2s ewp-iso 16\n",
      Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  // One run without a gap, in which the controller could sleep.
  ChildProcess loop(handset.CtlCommand({"loopback", "--types", "acl", "--bytes", "100000M"}));
  ASSERT_FALSE(loop.Wait(milliseconds(12000))) << loop.Output();  // with room for a slow start
  loop.Signal(SIGINT);
  ASSERT_TRUE(loop.Wait(kDeadline)) << loop.Output();
  // Both records are there when the line is quiet again; they may be several on a busy machine.
  const std::string time = "[0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{3}";
  const std::string from_to = time + ", " + time + ", ";
  for (const std::string& regex :
       {"conn_handle, during, acl_rx_data_count\n" + from_to + "1, [0-9]{4,5}, [0-9]+\n",
        "during, tx_packet_count\n" + from_to + "1[0-9]{4}, [0-9]+\n"}) {
    std::string report;
    EXPECT_TRUE(WaitFor([&] {
      report = handset.Ctl({"debug", "-s", "activity"}).output;
      return ::testing::Matches(ContainsRegex(regex))(report);
    })) << report;
  }
  const std::string log = handset.Log();
  for (const char* line :
       {"W bthal.bqr: ParseLinkQualityRelatedEvt: Monitoring , Handle: 0x",
        ": Packet[2/2], Packet_Entry_Time_Offset: 20.000,"
        "First_Packet_Transmit_Delay: 10.000, First_Packet_Ack_Delay: 15.000,"
        "Final_Packet_Transmit_Delay: 20.000\n",
        " [BT_EWP_DUMP] 0x020 : [ x", " [BT_EWP_DUMP] 0x000 : [Handle=0xe00, LEN=40]{DATA=x",
        " [BT_EWP_DUMP] 0x000 : [Handle=0xd00, LEN="}) {
    EXPECT_THAT(log, HasSubstr(line));
  }
}

}  // namespace
}  // namespace test
