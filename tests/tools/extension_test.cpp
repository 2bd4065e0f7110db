// What the commands of the extensions make of their arguments, and of what the service logs.

#include "tools/link/extension.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/vectors.h"
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
  // 22 MHz around each centre: channel n is at 2402 + n MHz, WLAN 6 at 2437, 14 at 2484 MHz.
  for (const auto& [wlan, avoided] :
       std::vector<std::pair<int, const char*>>{{1, "0-21"}, {6, "24-46"}, {14, "71-78"}}) {
    ChannelMap wlan_map;
    wlan_map.AvoidWlan(wlan);
    EXPECT_EQ(wlan_map.Avoided(), avoided) << wlan;
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
  for (const char* ranges : {"", "79", "x", "1-", "-1", "5-4", "1,,2", "1,", "1-2-3", "999"}) {
    EXPECT_TRUE(refused([&](ChannelMap& map) { map.Avoid(ranges); })) << ranges;
  }
  for (const int wlan : {0, 15}) {
    EXPECT_TRUE(refused([&](ChannelMap& map) { map.AvoidWlan(wlan); })) << wlan;
  }
  EXPECT_TRUE(refused([](ChannelMap& map) { map = ChannelMap::FromHex(std::string(22, 'F')); }));
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

}  // namespace
}  // namespace bthalctl
