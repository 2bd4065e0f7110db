#include "sim/scenario/scenario.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "sim/handset/handset.h"
#include "support/vectors.h"

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
      "f", Handset::ActionTypes());
  ASSERT_EQ(steps.size(), 4u);
  EXPECT_EQ(steps[0].trigger.kind, Trigger::Kind::kCommand);
  EXPECT_EQ(steps[0].trigger.opcode, 0xFC18);
  EXPECT_FALSE(steps[0].trigger.Counts(1));
  EXPECT_TRUE(steps[0].trigger.Counts(2));
  EXPECT_FALSE(steps[0].trigger.Counts(3));
  EXPECT_EQ(steps[0].action.arguments.time, ScenarioTime(1900));
  EXPECT_EQ(steps[1].trigger.opcode, 0x0C03);
  EXPECT_TRUE(steps[1].trigger.Counts(4));
  EXPECT_EQ(steps[1].trigger.time, ScenarioTime(2000));
  EXPECT_EQ(steps[1].action.arguments.bytes, (Bytes{0x04, 0xFF, 0x01, 0xAA}));
  EXPECT_EQ(steps[2].trigger.kind, Trigger::Kind::kStart);
  EXPECT_EQ(steps[2].action.arguments.time, ScenarioTime(5000));
  EXPECT_EQ(steps[3].trigger.kind, Trigger::Kind::kPower);
  EXPECT_EQ(steps[3].action.arguments.number, 4u);
}

TEST(Scenario, Nonsense_NamesFileLineAndReason) {
  for (const test::Vector& row : test::LoadVectors("scenario_mistakes.txt")) {
    try {
      ParseScenario(*test::ParseText(row.name), "f", Handset::ActionTypes());
      ADD_FAILURE() << row.name;
    } catch (const std::runtime_error& caught) {
      EXPECT_EQ(caught.what(), row.fields[0]);
    }
  }
}

}  // namespace
}  // namespace zvk
