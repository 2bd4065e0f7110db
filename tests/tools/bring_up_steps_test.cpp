#include "tools/log/bring_up_steps.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/base/failure.h"

namespace bthalctl {
namespace {

using ::testing::ElementsAre;

// The steps of log lines "SECONDS PRIORITY TAG: TEXT", as one text each.
std::vector<std::string> Told(const std::vector<std::string>& lines) {
  BringUpSteps steps;
  std::vector<std::string> told;
  for (const std::string& line : lines) {
    const auto parsed =
        ParseLogLine("2026-11-21 06:48:" + line.substr(0, 6) + "  5341  5353" + line.substr(6));
    if (!parsed) throw Failure("no log line: " + line);
    for (const Progress& progress : steps.Feed(*parsed)) {
      const char* kinds[] = {"begin", "end", "failed", "mark", "trouble"};
      std::string text = kinds[static_cast<int>(progress.kind)];
      text += " " + std::to_string(progress.at.count()) + "+" +
              std::to_string(progress.took.count()) + " " + progress.name;
      if (!progress.detail.empty()) text += " = " + progress.detail;
      told.push_back(text);
    }
  }
  return told;
}

TEST(BringUpSteps, StepWithAnEndOfItsOwn_TimeAndFindings) {
  EXPECT_THAT(
      Told({"10.000 I bthal.zvkbtlinux: initialize_impl", "10.001 I coex_device: DeviceOpen",
            "10.002 I coex_device: DeviceOpen return upon created fd: 9",
            "10.302 I bthal.zvkbtlinux: open_coex_dev: return ret (1), count:3",
            "10.302 I bthal.qvrhelper: PrepareQvrTransport",
            "10.305 I bthal.qvrhelper: PrepareQvrTransport: return ret (1), count:0",
            "10.400 I bthal.hwcontrol: userial_tty_open: open /dev/ttySAC16",
            "10.450 I bthal.hwcontrol: UserialOpen: USERIAL (13) Ready",
            "10.450 I bthal.bdaddress: Provision: BDADDR <01:00:00:4b:56:5a>",
            "10.460 I bthal.bdaddress: OnEventReceive: Recv Success VSE <[6]{14, 4, 1}>"}),
      ElementsAre("mark 0+0 a stack attaches", "begin 1+0 coexistence device",
                  "end 1+301 coexistence device = opened after 3 failed attempts",
                  "begin 302+0 co-processor", "end 302+3 co-processor = connected",
                  "begin 400+0 serial port = /dev/ttySAC16",
                  "end 400+50 serial port = /dev/ttySAC16",
                  "begin 450+0 device address = 5a:56:4b:00:00:01",
                  "end 450+10 device address = 5a:56:4b:00:00:01"));
}

TEST(BringUpSteps, StepWithoutAnEnd_EndsWhereTheNextBegins) {
  EXPECT_THAT(
      Told({"10.000 I bthal.zvkproto: firmware_download: Sending Download Minidrv command",
            "10.050 I bthal.zvkproto: firmware_download: Downloading Firmware Patchram data",
            "10.350 I bthal.zvkproto: firmware_download: Sending 0xfc4e 0x04 Launch Ram"}),
      ElementsAre("begin 0+0 download mode", "end 0+50 download mode",
                  "begin 50+0 firmware records", "end 50+300 firmware records",
                  "begin 350+0 launch"));
}

TEST(BringUpSteps, ErrorLine_FailsTheStepOnceAndIsShown) {
  EXPECT_THAT(
      Told({"10.000 I bthal.zvkproto: baudrate_change: Sending Update Baud Rate (4000000) command",
            "10.001 W bthal.hci_h4: Send: 16/248 bytes written",
            "10.002 W bthal.hci_h4: Send: 16/248 bytes written",
            "12.000 E bthal.zvkproto: btzvk_send_command_wait_complete: Result 0x03",
            "12.001 E bthal.zvkproto: baudrate_change: Update Baud Rate command failed: 3"}),
      ElementsAre("begin 0+0 line speed = 4000000 bit/s",
                  "trouble 1+0 W Send: 16/248 bytes written",
                  "failed 0+2000 line speed = 4000000 bit/s",
                  "trouble 2000+0 E btzvk_send_command_wait_complete: Result 0x03",
                  "trouble 2001+0 E baudrate_change: Update Baud Rate command failed: 3"));
}

TEST(BringUpSteps, AnswerThatIsNoSuccess_FailsTheStep) {
  EXPECT_THAT(Told({"10.000 I bthal.zvkproto: send_hci_reset",
                    "10.001 I bthal.zvkproto: read_btzvk_chip_id: 0",
                    "10.002 I bthal.bdaddress: Provision: BDADDR <01:00:00:4b:56:5a>",
                    "10.003 W bthal.bdaddress: OnEventReceive: Recv Failure VSE <[6]{14}>"}),
              ElementsAre("begin 0+0 reset and chip id", "failed 0+1 reset and chip id = chip id 0",
                          "begin 2+0 device address = 5a:56:4b:00:00:01",
                          "failed 2+1 device address = 5a:56:4b:00:00:01",
                          "trouble 3+0 W OnEventReceive: Recv Failure VSE <[6]{14}>"));
}

TEST(BringUpSteps, LinesOfOthers_SayNothing) {
  EXPECT_THAT(Told({"10.000 I bthal.flowcontrol: HciEventPreProcess: HCI Event 0xe",
                    "10.000 I bthal.bdaddress: OnEventReceive: Recv Success VSE <>",
                    "10.000 I somebody.else: send_hci_reset",
                    "10.000 I bthal.zvkproto: send_hci_reset: Done (status:0)",
                    "10.000 I bthal.zvkproto: baudrate_change: Done"}),
              ElementsAre());
}

TEST(LogLine, NotOfTheLog_IsNone) {
  for (const char* line :
       {"", "x", "2026-11-21", "2026-11-21 06:48:10.000", "2026-11-21 06:48:10.000 1 2 I no colon",
        "2026-11-21 06:48:10.000 1 2 X tag: text", "2026-13-21 06:48:10.000 1 2 I tag: text",
        "2026-11-21 06:48:99.000 1 2 I tag: text", "    #06 pc 0000560ad72bfa95  file (a: b)"}) {
    EXPECT_FALSE(ParseLogLine(line)) << line;
  }
  const auto line = ParseLogLine("2026-11-21 06:48:10.123  5341 25353 W a.tag: text: more");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->tag, "a.tag");
  EXPECT_EQ(line->text, "text: more");
  EXPECT_EQ(line->priority, 'W');
  EXPECT_EQ(line->time.time_since_epoch() % std::chrono::seconds(1),
            std::chrono::milliseconds(123));
}

}  // namespace
}  // namespace bthalctl
