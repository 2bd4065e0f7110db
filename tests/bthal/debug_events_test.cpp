// What the controller tells of its own failures: which files it leaves, which events stay here.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/report_check.h"
#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "support/temp_dir.h"
#include "support/vectors.h"
#include "support/wait.h"

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

// Holds up the first hardware error until a thread sleeps.
class HeldUp final : public android::hardware::bluetooth::hci::HciEventWatcher {
 public:
  HeldUp() : HciEventWatcher("held up", 0x10, 0) {}
  bool OnEventReceive(const android::hardware::hidl_vec<uint8_t>& /*event*/) override {
    if (!begun.exchange(true)) {
      EXPECT_TRUE(test::WaitFor([this] { return sleeper != 0 && test::IsAsleep(sleeper); }));
    }
    return false;
  }
  std::atomic<bool> begun{false};
  std::atomic<pid_t> sleeper{0};
};

// Two enable cycles. In the first, dumps are under way when the monitor stops, and the controller
// fails at that moment. The second has a dump of its own.
CHILD_CASE(DumpsOfTwoCycles) {
  test::UartRig rig;
  if (!rig.Open()) return 1;
  HeldUp held_up;
  rig.flow()->RegisterEventWatcher(&held_up);
  DebugCentral::Get().StartMonitor(rig.flow().get());
  rig.DeliverEvent(test::ParseHex("FF 05 58 14 00 5A 01"));
  rig.DeliverEvent(test::ParseHex("FF 07 57 01 02 00 03 04 05"));
  std::thread stop([&] {
    test::WaitFor([&] { return held_up.begun.load(); });
    held_up.sleeper = gettid();
    DebugCentral::Get().StopMonitor();
  });
  rig.DeliverEvent(test::ParseHex("10 01 2A"));
  stop.join();
  // Names of files have seconds.
  const time_t end = time(nullptr);
  test::WaitFor([&] { return time(nullptr) > end; });
  DebugCentral::Get().StartMonitor(rig.flow().get());
  rig.DeliverEvent(test::ParseHex("FF 07 57 01 02 01 06 07 08"));
  rig.DeliverEvent(test::ParseHex("FF 04 58 14 5A 00"));
  DebugCentral::Get().StopMonitor();
  rig.flow()->UnregisterEventWatcher(&held_up);
  return 0;
}

// The content of the one file in folder whose name begins so; "none" when there is none.
std::string FileLike(const std::string& folder, const std::string& prefix) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().filename().string().rfind(prefix, 0) == 0) return test::ReadFile(entry.path());
  }
  return "none";
}

TEST(CrashDump, OfTheNextCycle_HasFilesOfItsOwnWithItsFragmentsOnly) {
  test::CrashRoot root;
  test::WriteConfiguration(root.path());
  std::filesystem::create_directories(root / "dev");
  const test::ChildRun run = test::RunChild("DumpsOfTwoCycles", root.path());
  ASSERT_EQ(run.result.exit_code, 0) << run.output;
  const std::vector<std::string> infos = root.CrashInfos();
  ASSERT_EQ(infos.size(), 2u) << run.output;
  EXPECT_THAT(test::ReadFile(infos[1]), HasSubstr("crash_reason: Debug Info Event\n"));
  const std::string dumps = root / "data/vendor/ssrdump/coredump";
  EXPECT_EQ(FileLike(dumps, "coredump_bt_socdump_"),
            std::string("\xFF\x07\x57\x01\x02\x01\x06\x07\x08"));
  EXPECT_EQ(FileLike(dumps, "coredump_bt_chredump_"), std::string("\xFF\x04\x58\x14\x5A\0", 6));
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
