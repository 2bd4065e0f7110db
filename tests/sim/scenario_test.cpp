#include "sim/scenario/scenario.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace zvk {
namespace {

TEST(Scenario, EachForm_IsRead) {
  const auto steps = ParseScenario(
      "# comment\n"
      "\n"
      "on 0xFC18 nth 2 late 1900ms\r\n"
      "  after 3075 from 3 2s inject 04ff 01 AA # and another\n"
      "at 10s silence 5s\n"
      "power 100ms split 4\n",
      "f");
  ASSERT_EQ(steps.size(), 4u);
  EXPECT_EQ(steps[0].trigger.kind, Trigger::Kind::kCommand);
  EXPECT_EQ(steps[0].trigger.opcode, 0xFC18);
  EXPECT_FALSE(steps[0].trigger.Counts(1));
  EXPECT_TRUE(steps[0].trigger.Counts(2));
  EXPECT_FALSE(steps[0].trigger.Counts(3));
  EXPECT_EQ(steps[0].action.time, ScenarioTime(1900));
  EXPECT_EQ(steps[1].trigger.opcode, 0x0C03);
  EXPECT_TRUE(steps[1].trigger.Counts(4));
  EXPECT_EQ(steps[1].trigger.time, ScenarioTime(2000));
  EXPECT_EQ(steps[1].action.bytes, (Bytes{0x04, 0xFF, 0x01, 0xAA}));
  EXPECT_EQ(steps[2].trigger.kind, Trigger::Kind::kStart);
  EXPECT_EQ(steps[2].action.time, ScenarioTime(5000));
  EXPECT_EQ(steps[3].trigger.kind, Trigger::Kind::kPower);
  EXPECT_EQ(steps[3].action.number, 4u);
}

TEST(Scenario, Nonsense_NamesFileLineAndReason) {
  const std::pair<const char*, const char*> rows[] = {
      {"whenever hangup", "f:1: \"whenever\" is not a trigger (on, after, at, power, request)"},
      {"\non\n", "f:2: an opcode is missing"},
      {"on 0x10000 hangup", "f:1: \"0x10000\" is not an opcode"},
      {"on reset hangup", "f:1: \"reset\" is not an opcode"},
      {"on 0xFC18 nth many hangup", "f:1: \"many\" is not a count"},
      {"on 0xFC18", "f:1: an action is missing"},
      {"at soon hangup", "f:1: \"soon\" is not a time (250ms, 2s)"},
      {"at 5 hangup", "f:1: \"5\" is not a time (250ms, 2s)"},
      {"at 1s explode", "f:1: \"explode\" is not an action"},
      {"at 1s stray 256", "f:1: \"256\" is not a byte"},
      {"at 1s inject 4 ff", "f:1: \"4 ff\" is not a row of hexadecimal bytes"},
      {"at 1s inject", "f:1: a row of hexadecimal bytes is missing"},
      {"at 1s crash 1", "f:1: a byte is missing"},
      {"at 1s split 1 2", "f:1: \"2\" is not a time (250ms, 2s)"},
      {"request reset lost",
       "f:1: \"reset\" is not a request (find, packet, power, low-power, speed, dump)"},
      {"request power twice", "f:1: this action needs \"on OPCODE\""},
      {"at 1s link-layer 11:22:33:44:55 phy", "f:1: \"11:22:33:44:55\" is not an address"},
      {"at 1s hangup now", "f:1: \"now\" is too much"},
      {"at 1s no-answer", "f:1: this action needs \"on OPCODE\""},
  };
  for (const auto& [text, error] : rows) {
    try {
      ParseScenario(text, "f");
      ADD_FAILURE() << text;
    } catch (const std::runtime_error& caught) {
      EXPECT_STREQ(caught.what(), error);
    }
  }
}

}  // namespace
}  // namespace zvk
