// What the controller tells of its own failures: which files it leaves, which events stay here.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "bthal/child_case.h"
#include "bthal/report_check.h"
#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
using test::Bytes;
using testing::HasSubstr;

// Arguments: events. Prints those that reach the stack.
CHILD_CASE(DebugEvents) {
  test::UartRig rig;
  if (!rig.Open()) return 1;
  DebugCentral::Get().StartMonitor(rig.flow().get());
  for (const std::string& event : arguments) rig.DeliverEvent(test::ParseHex(event));
  for (const auto& packet : rig.TakeReceived()) {
    printf("stack got %s\n", test::ToHex(packet.bytes).c_str());
  }
  fflush(stdout);
  DebugCentral::Get().StopMonitor();
  return 0;
}

// The content of the one file in folder whose name begins so; "none" when there is none.
std::string FileLike(const std::string& folder, const std::string& prefix) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().filename().string().rfind(prefix, 0) == 0) return test::ReadFile(entry.path());
  }
  return "none";
}

class DebugEvents : public testing::TestWithParam<test::Vector> {};

TEST_P(DebugEvents, LeaveTheirFilesAndReachTheStackOrNot) {
  const std::vector<std::string>& row = GetParam().fields;
  test::CrashRoot root;
  test::WriteConfiguration(root.path());
  std::filesystem::create_directories(root / "dev");
  const test::ChildRun run =
      test::RunChild("DebugEvents", root.path(), test::SplitTrimmed(row[0], ','));
  EXPECT_EQ(run.result.exit_code, 0) << run.output;
  std::string stack_got;
  for (const std::string& line : test::SplitTrimmed(run.output, '\n')) {
    if (line.rfind("stack got ", 0) == 0) stack_got += line.substr(10) + ", ";
  }
  EXPECT_EQ(stack_got, row[1].empty() ? "" : row[1] + ", ");
  const std::string dumps = root / "data/vendor/ssrdump";
  const std::string info = FileLike(dumps, "crashinfo_bt_");
  if (const auto reason = test::ParseText(row[2])) {
    EXPECT_THAT(info, HasSubstr("crash_reason: " + *reason + "\ncrash_count: 1\n"));
  } else {
    EXPECT_EQ(info, "none");
  }
  for (const std::string& file : test::SplitTrimmed(row[3], ';')) {
    const size_t colon = file.find(": ");
    const Bytes bytes = test::ParseHex(file.substr(colon + 2));
    EXPECT_EQ(FileLike(dumps + "/coredump", "coredump_bt_" + file.substr(0, colon)),
              std::string(bytes.begin(), bytes.end()));
  }
  for (const std::string& line : test::SplitTrimmed(row[4], ';')) {
    EXPECT_THAT(run.output, HasSubstr(line));
  }
  for (const std::string& record : test::SplitTrimmed(row[5], ';')) {
    EXPECT_THAT(FileLike(dumps + "/coredump", "coredump_bt_2"), HasSubstr(": " + record + "\n"));
  }
}
INSTANTIATE_TEST_SUITE_P(Vectors, DebugEvents,
                         testing::ValuesIn(test::LoadVectors("debug_events.txt")),
                         [](const auto& row) { return row.param.name; });

}  // namespace
