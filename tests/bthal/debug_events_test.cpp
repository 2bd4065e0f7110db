// What the controller tells of its own failures: which files it leaves, which events stay here.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "bthal/child_case.h"
#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
using test::Bytes;
using testing::HasSubstr;
using testing::Not;

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

class DebugEvents : public testing::Test {
 protected:
  DebugEvents() {
    test::WriteConfiguration(root_.path());
    std::filesystem::create_directories(Cores());
    std::filesystem::create_directories(root_.path() + "/dev");
  }
  std::string Cores() const { return root_.path() + "/data/vendor/ssrdump/coredump"; }

  void Deliver(const std::vector<std::string>& events) {
    const test::ChildRun run = test::RunChild("DebugEvents", root_.path(), events);
    EXPECT_EQ(run.result.exit_code, 0) << run.output;
    output_ = run.output;
  }
  bool StackGot(const std::string& event) const {
    return output_.find("stack got " + event + "\n") != std::string::npos;
  }
  // The content of the one file in folder whose name begins so; "none" when there is none.
  std::string FileLike(const std::string& folder, const std::string& prefix) const {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (entry.path().filename().string().rfind(prefix, 0) == 0) {
        return test::ReadFile(entry.path().string());
      }
    }
    return "none";
  }
  std::string CrashInfo() const {
    return FileLike(root_.path() + "/data/vendor/ssrdump", "crashinfo_bt_");
  }
  static std::string AsText(const std::string& hex) {
    const Bytes bytes = test::ParseHex(hex);
    return std::string(bytes.begin(), bytes.end());
  }

  test::TempDir root_;
  std::string output_;
};

TEST_F(DebugEvents, RootInflammation_LeavesFilesUnlessTheChipIsResetAnyway) {
  Deliver({"FF 04 58 05 00 20", "FF 04 58 05 00 7F"});
  EXPECT_EQ(CrashInfo(), "none");
  EXPECT_THAT(output_, Not(HasSubstr("stack got")));

  Deliver({"FF 04 58 05 00 10"});
  EXPECT_THAT(CrashInfo(), HasSubstr("crash_reason: ControllerRootInflammed- (error_code: 0x00, "
                                     "vendor_error: 0x10)\ncrash_count: 1\n"));
  EXPECT_TRUE(StackGot("FF 04 58 05 00 10"));
}

TEST_F(DebugEvents, FirmwareDumpWithoutCause_StartsACrashDumpAndIsAppended) {
  Deliver({"FF 05 58 13 AA BB CC", "FF 04 58 13 DD EE"});
  EXPECT_THAT(CrashInfo(),
              HasSubstr("crash_reason: ControllerDebugInfoDataDumpWithoutRootInflammed\n"));
  EXPECT_EQ(FileLike(Cores(), "coredump_bt_socdump_"),
            AsText("FF 05 58 13 AA BB CC FF 04 58 13 DD EE"));
  EXPECT_THAT(output_, Not(HasSubstr("stack got")));
}

TEST_F(DebugEvents, DebugInfo_IsWrittenWithItsLastFragmentWhichStaysHere) {
  const std::string tooShort = "FF 06 57 01 02 01 03 04";
  const std::string first = "FF 07 57 01 02 00 03 04 05", last = "FF 07 57 01 02 01 06 07 08";
  Deliver({tooShort, first, last});
  EXPECT_THAT(output_, HasSubstr("handle_debug_info_event: Invalid length of debug info event!"));
  EXPECT_THAT(CrashInfo(), HasSubstr("crash_reason: Debug Info Event\n"));
  EXPECT_EQ(FileLike(Cores(), "coredump_bt_socdump_"), AsText(first + " " + last));
  EXPECT_TRUE(StackGot(first));
  EXPECT_FALSE(StackGot(last));
}

TEST_F(DebugEvents, CoProcessorDump_IsWrittenWithItsLastPacket) {
  Deliver({"FF 05 58 14 00 5A 01", "FF 04 58 14 5A 00"});
  EXPECT_EQ(FileLike(Cores(), "coredump_bt_chredump_"),
            AsText("FF 05 58 14 00 5A 01 FF 04 58 14 5A 00"));
  EXPECT_THAT(output_, Not(HasSubstr("stack got")));
}

TEST_F(DebugEvents, HardwareError_LeavesFilesAndReachesTheStack) {
  Deliver({"10 01 2A"});
  EXPECT_THAT(output_, HasSubstr("Error code=2A"));
  EXPECT_THAT(CrashInfo(), HasSubstr("crash_reason: ControllerHwError\n"));
  EXPECT_THAT(FileLike(Cores(), "coredump_bt_"),
              HasSubstr(": operator(): Received Hardware error event!\n"));
  EXPECT_TRUE(StackGot("10 01 2A"));
}

TEST_F(DebugEvents, ShortOrUnknownReports_LeaveNothing) {
  Deliver({"FF 01 58", "FF 02 58 06", "FF 03 58 20 01"});
  EXPECT_THAT(output_, HasSubstr("handle_bqr_event: Invalid length of BQR event!"));
  EXPECT_THAT(output_, HasSubstr("ParseVendorSpecificTraceEvt: Invalid vendor report id"));
  EXPECT_EQ(CrashInfo(), "none");
}

}  // namespace
