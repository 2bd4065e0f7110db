// What the commands of the extensions make of their arguments, and of what the service logs.

#include "tools/link/extension.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/vectors.h"
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
  for (const test::Vector& row : test::LoadVectors("call_outcomes.txt")) {
    LogLine line;
    line.tag = row.name;
    line.text = row.fields[0];
    const std::string& expected = row.fields[1];
    const auto verdict = CallOutcome::Verdict(line, "bthal.sar");
    ASSERT_EQ(verdict.has_value(), expected != "none") << line.text;
    if (!verdict) continue;
    EXPECT_THAT(verdict->empty() ? "accepted" : *verdict, HasSubstr(expected)) << line.text;
  }
}

// The text that the service's own test compares to the letter.
TEST(ActivityReport, RowsOfEachTable) {
  const ActivityReport report = ParseActivityReport(
      test::Replaced(test::LoadExpected("activity_report.txt"), "@TIME@", "06:46:16:853"));
  ASSERT_EQ(report.devices.size(), 2u);
  EXPECT_EQ(report.devices[1].handle, 64);
  EXPECT_EQ(report.devices[1].address, "21:22:23:24:25:26");
  ASSERT_EQ(report.wake_locks.size(), 2u);
  EXPECT_EQ(report.wake_locks[0].milliseconds, 12345u);
  EXPECT_EQ(report.wake_locks[0].count, 77u);
  ASSERT_EQ(report.acl.size(), 1u);
  EXPECT_EQ(report.acl[0].handle, 64);
  EXPECT_EQ(report.acl[0].count, 4294967295u);
  ASSERT_EQ(report.advertising.size(), 1u);
  EXPECT_EQ(report.advertising[0].end, "09:03:08:000");
  EXPECT_EQ(report.advertising[0].milliseconds, 8000u);
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
