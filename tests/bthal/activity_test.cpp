// What the activity statistics see, remember and print.

#include <gtest/gtest.h>

#include "bluetooth_Activity.h"
#include "bthal/child_case.h"
#include "bthal/sequence_runner.h"
#include "support/temp_dir.h"

namespace {

using namespace android::hardware::bluetooth::V1_1::zvkbtlinux::activity;
using test::Bytes;

BtActivitiesLogger& Logger() { return *BtActivitiesLogger::GetInstacne(); }

std::string Report() {
  return test::Written([](int fd) { Logger().DumpBtActivitiesStatistics(fd); });
}

std::string WithoutTimes(std::string text) {
  const std::string shape = ", ##:##:##:###\n";
  for (size_t at = 0; at + shape.size() <= text.size(); ++at) {
    if (test::HasShape(text.substr(at, shape.size()), shape)) {
      text.replace(at, shape.size(), ", @TIME@\n");
    }
  }
  return text;
}

// In a process of its own: what it remembers is for the life of a process.
CHILD_CASE(ActivityReport) {
  test::SequenceRunner runner("bthal.activity");
  Logger().OnBluetoothEnabled(&runner.flow());
  runner.Run("log I OnBluetoothEnabled");
  for (const test::Vector& vector : test::LoadVectors("activity_packets.txt")) {
    SCOPED_TRACE(vector.name);
    const auto type = static_cast<uint8_t>(std::stoi(vector.fields[0]));
    const Bytes packet = test::ParseHex(vector.fields[1]);
    // As the HAL does: events come through the flow control first.
    if (type == 4) runner.rig().DeliverEvent(packet);
    Logger().LogActivities(type, packet);
    if (vector.fields[2] != "-") {
      std::string line = vector.fields[2];
      if (vector.name == "disconnection_of_nobody") line += " ";  // the address is empty
      EXPECT_EQ(runner.LinesLeft(), std::vector<std::string>{"I " + line});
    } else {
      EXPECT_EQ(runner.LinesLeft(), std::vector<std::string>{});
    }
  }
  // The report has the devices that are left, without the one that this takes away.
  runner.rig().DeliverEvent(test::ParseHex("03 0B 00 0B 00 FF EE DD CC BB AA 01 00"));
  for (const char* handle : {"0C 00", "00 0F"}) {
    runner.rig().DeliverEvent(test::ParseHex("05 04 00 " + std::string(handle) + " 13"));
  }
  runner.SkipLog();

  Logger().UpdateBthalWakelockStat({"09:00:00:000", "09:00:12:345", 12345, 77});
  Logger().UpdateBthalWakelockStat({"09:01:00:000", "09:01:10:001", 10001, 1});
  Logger().UpdateAclDataStat({"09:02:00:000", "09:02:06:000", 64, 6000, 4294967295});
  Logger().UpdateLeAdvStat({"09:03:00:000", "09:03:08:000", 8000, 60});
  EXPECT_EQ(
      runner.LinesLeft(),
      (std::vector<std::string>{
          "I UpdateBthalWakelockStat: start: 09:00:00:000 - end: 09:00:12:345 duration: 12345 "
          "tx_packet_count: 77",
          "I UpdateBthalWakelockStat: start: 09:01:00:000 - end: 09:01:10:001 duration: 10001 "
          "tx_packet_count: 1",
          "I UpdateAclDataStat: start: 09:02:00:000 - end: 09:02:06:000 conn_handle: 64 duration: "
          "6000 acl_data_count: 4294967295",
          "I UpdateLeAdvStat: start: 09:03:00:000 - end: 09:03:08:000 duration: 8000 "
          "le_adv_count: 60"}));

  // All of it survives off, and the one advertising report was no burst.
  Logger().OnBluetoothDisabled();
  runner.Run("log I OnBluetoothDisabled");
  EXPECT_EQ(WithoutTimes(Report()), test::LoadExpected("activity_report.txt"));
  runner.Run(
      "log I DumpBtActivitiesStatistics: HCI_ACL: conn_handle: 00b, bda: aa:bb:cc:dd:ee:ff, "
      "created_timestamp: ... ; log I DumpBtActivitiesStatistics: HCI_ACL: conn_handle: 040, bda: "
      "21:22:23:24:25:26, created_timestamp: ...");

  // 512 of each, the oldest go first.
  for (int i = 0; i < 512; ++i) {
    const std::string number = std::to_string(i);
    Logger().UpdateAclDataStat({"A" + number, "", 1, 6000, 1});
    Logger().UpdateLeAdvStat({"L" + number, "", 6000, 1});
    Logger().UpdateBthalWakelockStat({"W" + number, "", 6000, 1});
  }
  const std::string full = Report();
  for (const char* record : {"\nA0,", "\nA511,", "\nL0,", "\nL511,", "\nW0,", "\nW511,"}) {
    EXPECT_NE(full.find(record), std::string::npos) << record;
  }
  EXPECT_EQ(full.find("\n09:0"), std::string::npos) << "the oldest are gone";
  return testing::Test::HasFailure() ? 1 : 0;
}

TEST(Activity, PacketsAndReportAreExact) {
  test::TempDir root;
  test::WriteConfiguration(root.path());
  const test::ChildRun run = test::RunChild("ActivityReport", root.path());
  EXPECT_EQ(run.result.exit_code, 0) << run.output;
}

}  // namespace
