// What the controller tells of its own failures: which files it leaves, which events stay here.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "bthal/report_check.h"
#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "support/vectors.h"
#include "support/wait.h"

namespace {

using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
using test::Bytes;
using testing::HasSubstr;

std::string TextOf(const std::string& hex) {
  const Bytes bytes = test::ParseHex(hex);
  return {bytes.begin(), bytes.end()};
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

class DebugEvents : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(rig_.Open()); }
  void Deliver(const std::string& hex) { rig_.DeliverEvent(test::ParseHex(hex)); }

  DebugCentral& central_ = DebugCentral::Get();
  const test::CrashFolders files_{test::RootFolder()};
  test::UartRig rig_;
};

TEST_F(DebugEvents, LeaveTheirFilesAndReachTheStackOrNot) {
  for (const test::Vector& v : test::LoadVectors("debug_events.txt")) {
    SCOPED_TRACE(v.name);
    const test::CrashFolders files(test::RootFolder());
    testing::internal::CaptureStderr();
    central_.StartMonitor(rig_.flow().get());
    for (const std::string& event : test::SplitTrimmed(v.fields[0], ',')) Deliver(event);
    central_.StopMonitor();
    const std::string log = testing::internal::GetCapturedStderr();
    std::vector<test::UartRig::Packet> expected;
    for (const std::string& event : test::SplitTrimmed(v.fields[1], ',')) {
      expected.push_back({4, test::ParseHex(event)});
    }
    EXPECT_EQ(rig_.TakeReceived(), expected);
    if (const auto reason = test::ParseText(v.fields[2])) {
      EXPECT_THAT(files.CrashInfoLike("crashinfo_bt_"),
                  testing::StartsWith("crash_reason: " + *reason + "\ncrash_count: "));
    } else {
      EXPECT_EQ(files.CrashInfoLike(""), "none");
    }
    for (const std::string& file : test::SplitTrimmed(v.fields[3], ';')) {
      const size_t colon = file.find(": ");
      EXPECT_EQ(files.CoreDumpLike("coredump_bt_" + file.substr(0, colon)),
                TextOf(file.substr(colon + 2)));
    }
    for (const std::string& line : test::SplitTrimmed(v.fields[4], ';')) {
      EXPECT_THAT(log, HasSubstr(line));
    }
    for (const std::string& record : test::SplitTrimmed(v.fields[5], ';')) {
      EXPECT_THAT(files.CoreDumpLike("coredump_bt_2"), HasSubstr(": " + record + "\n"));
    }
  }
}

// Two enable cycles. In the first, dumps are under way when the monitor stops, and the controller
// fails at that moment. The second has dumps of its own.
TEST_F(DebugEvents, DumpsOfTheNextCycle_HaveFilesOfTheirOwnWithTheirFragmentsOnly) {
  HeldUp held_up;
  rig_.flow()->RegisterEventWatcher(&held_up);
  central_.StartMonitor(rig_.flow().get());
  for (const char* fragment :
       {"FF 05 58 14 00 5A 01", "FF 07 57 01 02 00 03 04 05", "FF 05 58 13 AA BB CC"}) {
    Deliver(fragment);
  }
  std::thread stop([&] {
    test::WaitFor([&] { return held_up.begun.load(); });
    held_up.sleeper = gettid();
    central_.StopMonitor();
  });
  Deliver("10 01 2A");
  stop.join();
  const size_t first_files = files_.CoreDumps().size();
  test::WaitForTheNextSecond();
  central_.StartMonitor(rig_.flow().get());
  Deliver("FF 07 57 01 02 01 06 07 08");
  Deliver("FF 04 58 14 5A 00");
  central_.StopMonitor();
  rig_.flow()->UnregisterEventWatcher(&held_up);
  const std::vector<std::string> infos = files_.CrashInfos();
  ASSERT_EQ(infos.size(), 2u);
  EXPECT_THAT(test::ReadFile(infos[1]), HasSubstr("crash_reason: Debug Info Event\n"));
  const std::string stamp = infos[1].substr(infos[1].rfind("_bt_") + 4, 19);
  EXPECT_EQ(files_.CoreDumps().size(), first_files + 3);
  EXPECT_EQ(files_.CoreDumpLike("coredump_bt_socdump_" + stamp),
            TextOf("FF 07 57 01 02 01 06 07 08"));
  EXPECT_EQ(files_.CoreDumpLike("coredump_bt_chredump_" + stamp), TextOf("FF 04 58 14 5A 00"));
}

}  // namespace
