// What the commands of the extensions make of what the service logs.

#include "tools/link/extension.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/vectors.h"

namespace bthalctl {
namespace {

using ::testing::HasSubstr;

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
