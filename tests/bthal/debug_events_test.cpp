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

TEST_F(DebugEvents, ShortOrUnknownReports_LeaveNothing) {
  Deliver({"FF 01 58", "FF 02 58 06", "FF 03 58 20 01"});
  EXPECT_THAT(output_, HasSubstr("handle_bqr_event: Invalid length of BQR event!"));
  EXPECT_THAT(output_, HasSubstr("ParseVendorSpecificTraceEvt: Invalid vendor report id"));
  EXPECT_EQ(CrashInfo(), "none");
}

// A link-quality report of size bytes: handle 0x0123, an RSSI of -60 where the layout has it.
std::string LinkQualityReport(size_t size, size_t rssi) {
  Bytes event(size, 0);
  event[0] = 0xFF;
  event[1] = static_cast<uint8_t>(size - 2);
  event[2] = 0x58;
  event[3] = 1;
  event[5] = 0x23;
  event[6] = 0x01;
  event[rssi] = 0xC4;
  return test::ToHex(event);
}

TEST_F(DebugEvents, LinkQuality_IsShownInTheLayoutOfTheCapabilityVersion) {
  const auto capability = [](const char* version) {
    return std::string("0E 0E 01 53 FD 00 00 00 00 00 00 00 00 00 ") + version;
  };
  const std::string line = "ParseLinkQualityRelatedEvt: Monitoring , Handle: 0x0123, RSSI_C0: -60,";
  Deliver({LinkQualityReport(196, 187)});
  EXPECT_THAT(output_, Not(HasSubstr("ParseLinkQuality")));
  Deliver({LinkQualityReport(197, 187)});
  EXPECT_THAT(output_, HasSubstr(line));
  EXPECT_THAT(output_, Not(HasSubstr("Overall_link_quality")));
  Deliver({capability("01 01"), LinkQualityReport(248, 151)});
  EXPECT_THAT(output_, HasSubstr(line));
  EXPECT_THAT(output_, HasSubstr(", Overall_link_quality: 0, Tx_link_quality: 0, "));
  Deliver({capability("02 01"), LinkQualityReport(248, 151)});
  EXPECT_THAT(output_, HasSubstr("for BQR event with version: 258\n"));
}

// Entries of 8 bytes: offset 0, first transmit delay 8 and 16 units of 0.625 ms, the rest 0. A
// third one is announced and absent.
TEST_F(DebugEvents, LatencyMeasurement_ShowsEachPacketAndTheAverages) {
  const std::string entries = " 00 00 08 00 00 00 00 00 00 00 10 00 00 00 00 00";
  Deliver({"FF 1A 58 20 00 23 01 02 01 00 00 00" + entries});
  EXPECT_THAT(output_, HasSubstr(", Handle: 0x0123, Num_Packets_Logged: 2, Base_Timestamp: 1\n"));
  EXPECT_THAT(output_, HasSubstr(": Packet[1/2], Packet_Entry_Time_Offset: 0.000,"
                                 "First_Packet_Transmit_Delay: 5.000, First_Packet_Ack_Delay: "
                                 "0.000,Final_Packet_Transmit_Delay: 0.000\n"));
  EXPECT_THAT(output_, HasSubstr("First_Packet_Transmit_Delay: 10.000,"));
  EXPECT_THAT(output_, HasSubstr(": Average, Packet_num: 2, First_Packet_Transmit_Delay_avg: "
                                 "7.500, First_Packet_Ack_Delay_avg: 0.000,"));
  Deliver({"FF 1A 58 20 00 23 01 03 01 00 00 00" + entries});
  EXPECT_THAT(output_, HasSubstr(": Packet[3/3], Packet_Entry_Time_Offset: 0.000,"));
}

}  // namespace
