// What the commands of the extensions make of their arguments, and of what the service logs.

#include "tools/link/extension.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/evidence/activity_report.h"
#include "tools/hci/channel_map.h"

namespace bthalctl {
namespace {

using ::testing::HasSubstr;

TEST(ChannelMap, ChoicesTogether_BitsInTheirPlaces) {
  EXPECT_EQ(HexText(ChannelMap().bytes()), "FF FF FF FF FF FF FF FF FF 7F");
  ChannelMap map;
  map.Avoid("0,3-4,78");
  EXPECT_EQ(HexText(map.bytes()), "E6 FF FF FF FF FF FF FF FF 3F");
  EXPECT_EQ(map.used(), 75u);
  map.UseOnly("0-30");
  EXPECT_EQ(HexText(map.bytes()), "E6 FF FF 7F 00 00 00 00 00 00");
  EXPECT_EQ(map.Avoided(), "0,3-4,31-78");
  EXPECT_EQ(HexText(ChannelMap::FromHex("FFFFFFFFFFFFFFFFFFFF").bytes()),
            "FF FF FF FF FF FF FF FF FF FF")
      << "passed on as given";
  EXPECT_EQ(ChannelMap().Avoided(), "");
}

TEST(ChannelMap, WlanChannels_22MHzAroundTheirCentre) {
  // Channel n is at 2402 + n MHz; WLAN 1 at 2412, 6 at 2437, 13 at 2472, 14 at 2484 MHz.
  for (const auto& [wlan, avoided] : std::vector<std::pair<int, const char*>>{
           {1, "0-21"}, {6, "24-46"}, {13, "59-78"}, {14, "71-78"}}) {
    ChannelMap map;
    map.AvoidWlan(wlan);
    EXPECT_EQ(map.Avoided(), avoided) << wlan;
  }
}

TEST(ChannelMap, WhatIsNone_IsRefused) {
  const auto refused = [](const auto& choose) {
    ChannelMap map;
    try {
      choose(map);
    } catch (const Failure& failure) {
      return failure.code() == ExitCode::kUsage;
    }
    return false;
  };
  for (const char* ranges : {"", "79", "x", "1-", "-1", "5-4", "1,,2", "1,", "1-2-3", "0x1", "999",
                             "18446744073709551616", " 1"}) {
    EXPECT_TRUE(refused([&](ChannelMap& map) { map.Avoid(ranges); })) << ranges;
  }
  for (const int wlan : {0, -1, 15}) {
    EXPECT_TRUE(refused([&](ChannelMap& map) { map.AvoidWlan(wlan); })) << wlan;
  }
  for (const char* hex : {"FF", "FFFFFFFFFFFFFFFFFFFFFF", "GG"}) {
    EXPECT_TRUE(refused([&](ChannelMap& map) { map = ChannelMap::FromHex(hex); })) << hex;
  }
}

TEST(CallOutcome, LinesOfTheLog_WhatTheySayOfACall) {
  const struct {
    const char* tag;
    const char* text;
    const char* verdict;  // null: none; "": accepted
  } rows[] = {
      {"bthal.sar", "OnEventReceive: (1) Recv Success VSE <[6]{14, 4, 1, 105, 254, 0}>", ""},
      {"bthal.sar", "OnEventReceive: (1) Recv Failure VSE <[6]{14, 4, 1, 105, 254, 18}>",
       "Invalid HCI Command Parameters (0x12)"},
      {"bthal.sar", "OnEventReceive: (1) Recv Failure VSE <[5]{14, 4, 1, 105, 254}>", "refused"},
      {"bthal.sar", "OnEventReceive: (1) Recv Failure VSE <[6]{14, 4, 1, 105, 254, 999}>",
       "refused"},
      {"bthal.sar", "setBluetoothTxPowerCap: Unable to set power cap 40", "Bluetooth is off"},
      {"bthal.sar", "setBluetoothTxPowerCap: 0 Cap=40", nullptr},
      {"bthal.sar", "scopeCap: cap 90 is greater than 80, set to 80", nullptr},
      {"bthal.ewp", "OnEventReceive: (1) Recv Success VSE <[6]{14, 4, 1, 105, 254, 0}>", nullptr},
      {"bthal.sar", "setBluetoothCmdPacket: 0x0406 LEN 0x03 Result 0x03", "did not answer"},
      {"bthal.sar", "setBluetoothCmdPacket: 0x0406 LEN 0x03 Result 0x00", ""},
  };
  for (const auto& row : rows) {
    LogLine line;
    line.tag = row.tag;
    line.text = row.text;
    const auto verdict = CallOutcome::Verdict(line, "bthal.sar");
    ASSERT_EQ(verdict.has_value(), row.verdict != nullptr) << row.text;
    if (!verdict) continue;
    EXPECT_EQ(verdict->empty(), *row.verdict == '\0') << row.text;
    EXPECT_THAT(*verdict, HasSubstr(row.verdict));
  }
}

constexpr char kActivity[] =
    "*********************************************\n"
    "*   Begin Of Bluetooth Activities Reports   *\n"
    "*********************************************\n"
    "=============================================\n"
    " 1. Connected devices Report :\n"
    "=============================================\n"
    "handle, bt address, timestamp\n"
    "64, c2:56:4b:ad:00:03, 06:46:16:853\n"
    "=============================================\n"
    " 2. BtHal Tx Wakelock Report :\n"
    "=============================================\n"
    "start_timestamp, end_timestamp, during, tx_packet_count\n"
    "06:46:16:853, 06:46:29:153, 12300, 77\n"
    "=============================================\n"
    " 3. BtHal ACL RX Data Report :\n"
    "=============================================\n"
    "start_timestamp, end_timestamp, conn_handle, during, acl_rx_data_count\n"
    "06:46:16:853, 06:46:24:853, 64, 8000, 1234\n"
    "=============================================\n"
    " 4. BLE Advertising Report :\n"
    "=============================================\n"
    "start_timestamp, end_timestamp, duration, le_adv_counter\n"
    "06:46:16:853, 06:46:24:854, 8001, 55\n"
    "06:47:16:853, 06:47:24:853, 4294967295, 4294967295\n"
    "*********************************************\n"
    "*    End Of Bluetooth Activities Reports    *\n"
    "*********************************************\n";

TEST(ActivityReport, RowsOfEachTable) {
  const ActivityReport report = ParseActivityReport(kActivity);
  ASSERT_EQ(report.devices.size(), 1u);
  EXPECT_EQ(report.devices[0].handle, 64);
  EXPECT_EQ(report.devices[0].address, "c2:56:4b:ad:00:03");
  ASSERT_EQ(report.wake_locks.size(), 1u);
  EXPECT_EQ(report.wake_locks[0].milliseconds, 12300u);
  EXPECT_EQ(report.wake_locks[0].count, 77u);
  ASSERT_EQ(report.acl.size(), 1u);
  EXPECT_EQ(report.acl[0].handle, 64);
  EXPECT_EQ(report.acl[0].count, 1234u);
  ASSERT_EQ(report.advertising.size(), 2u);
  EXPECT_EQ(report.advertising[0].end, "06:46:24:854");
  EXPECT_EQ(report.advertising[1].milliseconds, 4294967295u);
}

TEST(ActivityReport, RowsThatAreNone_AreNamed) {
  const std::string head = " 3. BtHal ACL RX Data Report :\n";
  for (const std::string& text :
       {std::string("1, 2, 3\n"), head + "a, b, 64, 8000\n", head + "a, b, 65536, 8000, 1\n",
        head + "a, b, 64, -1, 1\n", head + "a,b,64,1,1\n", head + "nonsense\n",
        head + std::string("\0\n", 2)}) {
    EXPECT_THROW(ParseActivityReport(text), Failure) << text;
  }
}

}  // namespace
}  // namespace bthalctl
