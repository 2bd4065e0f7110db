#include "system/crash_evidence.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <stdexcept>

#include "support/vectors.h"

namespace test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

Vector ErrorCode(int code) {
  for (const Vector& v : LoadVectors("error_codes.txt")) {
    if (v.name == std::to_string(code)) return v;
  }
  throw std::runtime_error("no error code " + std::to_string(code));
}

}  // namespace

Evidence EvidenceOf(const Board& board) {
  return {board.CrashInfos(), board.CoreDumps(), board.Tombstones()};
}

std::string RootInflammation(int code) {
  return "event " + ToHex({0xFF, 0x04, 0x58, 0x05, 0x00, static_cast<uint8_t>(code)}) + "\n";
}

void ExpectDeath(int code, const std::string& reason, const std::optional<ChildResult>& end,
                 const std::string& log, const Evidence& evidence) {
  const Vector error = ErrorCode(code);
  const std::string &function = error.fields[0], &message = error.fields[1];
  const std::string last_words = "Bluetooth HAL crash with error code 0, vendor error code " +
                                 std::to_string(code) + ", extra info: " + reason;
  ASSERT_TRUE(end) << "the service lives";
  EXPECT_EQ(end->signal, SIGABRT);
  EXPECT_THAT(log, HasSubstr("ReportBqrError: root inflamed event with reason: " + message + " (" +
                             std::to_string(code) + ")\n"));
  EXPECT_THAT(log, HasSubstr(last_words + "\n"));

  ASSERT_EQ(evidence.crash_infos.size(), 1u);
  const std::string& info = evidence.crash_infos[0];
  const size_t stamp_at = info.find("timestamp: ");
  ASSERT_NE(stamp_at, std::string::npos) << info;
  const std::string stamp = info.substr(stamp_at + 11, 19);
  std::string expected = LoadExpected("crashinfo.txt");
  expected = Replaced(expected, "@REASON@", message);
  expected = Replaced(expected, "@COUNT@", "1");
  EXPECT_EQ(info, Replaced(expected, "@STAMP@", stamp));

  ASSERT_EQ(evidence.core_dumps.size(), 1u);
  EXPECT_THAT(evidence.core_dumps[0],
              StartsWith("DUMP REASON: " + message + " - occurred at " + stamp + "\n"));
  EXPECT_THAT(evidence.core_dumps[0], HasSubstr(": " + reason + "\n"));

  ASSERT_EQ(evidence.tombstones.size(), 1u);
  EXPECT_THAT(evidence.tombstones[0], HasSubstr("(SIGABRT)"));
  EXPECT_THAT(evidence.tombstones[0], HasSubstr("Abort message: '" + last_words + "'\n"));
  EXPECT_THAT(evidence.tombstones[0], HasSubstr("::" + function + "("));
}

}  // namespace test
