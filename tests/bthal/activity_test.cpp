// What the activity statistics see, remember and print.

#include <gtest/gtest.h>

#include "bluetooth_Activity.h"
#include "bthal/sequence_runner.h"
#include "support/temp_dir.h"

namespace {

using namespace android::hardware::bluetooth::V1_1::zvkbtlinux::activity;
using std::chrono::milliseconds;
using test::Bytes;

std::string Report(BtActivitiesLogger& logger) {
  return test::Written([&](int fd) { logger.DumpBtActivitiesStatistics(fd); });
}

TEST(Activity, PacketsAndReportAreExact) {
  test::SequenceRunner runner("bthal.activity");
  BtActivitiesLogger logger;
  logger.OnBluetoothEnabled(&runner.flow());
  runner.Run("log I OnBluetoothEnabled");
  for (const test::Vector& vector : test::LoadVectors("activity_packets.txt")) {
    SCOPED_TRACE(vector.name);
    const auto type = static_cast<uint8_t>(std::stoi(vector.fields[0]));
    const Bytes packet = test::ParseHex(vector.fields[1]);
    // As the HAL does: events come through the flow control first.
    if (type == 4) runner.rig().DeliverEvent(packet);
    logger.LogActivities(type, packet);
    std::vector<std::string> lines;
    if (vector.fields[2] != "-") lines.push_back("I " + vector.fields[2]);
    if (vector.name == "disconnection_of_nobody") lines[0] += " ";  // the address is empty
    EXPECT_EQ(runner.LinesLeft(), lines);
  }
  // The report has the devices that are left, without the one that this takes away.
  runner.rig().DeliverEvent(test::ParseHex("03 0B 00 0B 00 FF EE DD CC BB AA 01 00"));
  for (const char* handle : {"0C 00", "00 0F"}) {
    runner.rig().DeliverEvent(test::ParseHex("05 04 00 " + std::string(handle) + " 13"));
  }
  runner.SkipLog();

  logger.UpdateBthalWakelockStat({"09:00:00:000", "09:00:12:345", 12345, 77});
  logger.UpdateBthalWakelockStat({"09:01:00:000", "09:01:10:001", 10001, 1});
  logger.UpdateAclDataStat({"09:02:00:000", "09:02:06:000", 64, 6000, 4294967295});
  logger.UpdateLeAdvStat({"09:03:00:000", "09:03:08:000", 8000, 60});
  runner.Run(
      "log I UpdateBthalWakelockStat: start: 09:00:00:000 - end: 09:00:12:345 duration: 12345 "
      "tx_packet_count: 77 ; log I ...duration: 10001 tx_packet_count: 1 ;"
      "log I UpdateAclDataStat: start: 09:02:00:000 - end: 09:02:06:000 conn_handle: 64 duration: "
      "6000 acl_data_count: 4294967295 ;"
      "log I UpdateLeAdvStat: start: 09:03:00:000 - end: 09:03:08:000 duration: 8000 "
      "le_adv_count: 60");

  // All of it survives off, and the one advertising report was no burst.
  logger.OnBluetoothDisabled();
  runner.Run("log I OnBluetoothDisabled");
  EXPECT_EQ(test::WithoutTimes(Report(logger), ", ", "\n"),
            test::LoadExpected("activity_report.txt"));
  runner.Run(
      "log I DumpBtActivitiesStatistics: HCI_ACL: conn_handle: 00b, bda: aa:bb:cc:dd:ee:ff, "
      "created_timestamp: ... ; log I DumpBtActivitiesStatistics: HCI_ACL: conn_handle: 040, bda: "
      "21:22:23:24:25:26, created_timestamp: ...");

  // 512 of each, the oldest go first.
  for (int i = 0; i < 512; ++i) {
    const std::string number = std::to_string(i);
    logger.UpdateAclDataStat({"A" + number, "", 1, 6000, 1});
    logger.UpdateLeAdvStat({"L" + number, "", 6000, 1});
    logger.UpdateBthalWakelockStat({"W" + number, "", 6000, 1});
  }
  const std::string full = Report(logger);
  for (const char* record : {"\nA0,", "\nA511,", "\nL0,", "\nL511,", "\nW0,", "\nW511,"}) {
    EXPECT_NE(full.find(record), std::string::npos) << record;
  }
  EXPECT_EQ(full.find("\n09:0"), std::string::npos) << "the oldest are gone";
}

// A burst is remembered when it is longer than 5 s. Off ends it at once, and nothing of it is left
// for the next time.
TEST(Activity, BurstOfMoreThanFiveSeconds_IsRemembered) {
  test::SequenceRunner runner("bthal.activity");
  std::chrono::steady_clock::time_point now;
  BtActivitiesLogger logger([&] { return now; });
  const struct {
    int duration_ms;
    bool remembered;
  } rows[] = {{0, false}, {3001, false}, {5000, false}, {5001, true}, {60000, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.duration_ms);
    logger.OnBluetoothEnabled(&runner.flow());
    // Reports of legacy and of extended advertising, and ACL data of two handles.
    for (const char* report : {"3E 02 02 01", "3E 02 0D 01", "3E 02 02 01"}) {
      logger.LogActivities(4, test::ParseHex(report));
    }
    logger.LogActivities(2, test::ParseHex("40 2F 01 00 AA"));
    logger.LogActivities(2, test::ParseHex("41 20 01 00 AA"));
    now += milliseconds(row.duration_ms);
    runner.SkipLog();
    logger.OnBluetoothDisabled();
    now += std::chrono::hours(1);
    runner.Run("log I OnBluetoothDisabled");
    if (row.remembered) {
      const std::string duration = std::to_string(row.duration_ms);
      runner.Run("log I UpdateLeAdvStat: ...duration: " + duration + " le_adv_count: 3 ;" +
                 "log I UpdateAclDataStat: ...conn_handle: 3904 duration: " + duration +
                 " acl_data_count: 2");
    }
    EXPECT_EQ(runner.LinesLeft(), std::vector<std::string>{});
  }
}

}  // namespace
