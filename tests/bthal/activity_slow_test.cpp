// Bursts of packets in real time.

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "bluetooth_Activity.h"
#include "bthal/uart_rig.h"
#include "support/temp_dir.h"

namespace {

using namespace android::hardware::bluetooth::V1_1::zvkbtlinux::activity;
using std::chrono::milliseconds;

BtActivitiesLogger& Logger() { return *BtActivitiesLogger::GetInstacne(); }

// The report's records below a heading, split at ", ".
std::vector<std::vector<std::string>> Records(const std::string& heading) {
  std::istringstream report(test::Written([](int fd) { Logger().DumpBtActivitiesStatistics(fd); }));
  std::string line;
  while (std::getline(report, line) && line != heading) {
  }
  std::getline(report, line);  // rule
  std::getline(report, line);  // names of the columns
  std::vector<std::vector<std::string>> records;
  while (std::getline(report, line) && line[0] != '=' && line[0] != '*') {
    records.push_back(test::SplitTrimmed(line, ','));
  }
  return records;
}

constexpr char kAdvertising[] = " 4. BLE Advertising Report :";
constexpr char kAclData[] = " 3. BtHal ACL RX Data Report :";

// A packet of each kind; reports of legacy and of extended advertising in turn.
void LogBoth(int number) {
  Logger().LogActivities(4, test::ParseHex(number % 2 == 0 ? "3E 02 02 01" : "3E 02 0D 01"));
  Logger().LogActivities(2, test::ParseHex("40 20 01 00 AA"));
}

// Off ends a burst at once: 5.1 s are enough, and nothing of it is left for the next time.
TEST(ActivitySlow, OffEndsABurst) {
  test::UartRig rig;
  ASSERT_TRUE(rig.Open());
  Logger().OnBluetoothEnabled(rig.flow().get());
  for (int i = 0; i < 5; ++i) {
    LogBoth(i);
    std::this_thread::sleep_for(milliseconds(1050));
  }
  Logger().OnBluetoothDisabled();
  ASSERT_EQ(Records(kAdvertising).size(), 1u);
  const std::vector<std::string> advertising = Records(kAdvertising)[0];
  ASSERT_EQ(advertising.size(), 4u);
  EXPECT_EQ(advertising[3], "5");
  ASSERT_EQ(Records(kAclData).size(), 1u);
  const std::vector<std::string> acl = Records(kAclData)[0];
  ASSERT_EQ(acl.size(), 5u);
  EXPECT_EQ(acl[2], "64");  // handle 0x040 without its flags
  EXPECT_EQ(acl[4], "5");
  for (const std::string& duration : {advertising[2], acl[3]}) {
    EXPECT_GE(std::stoi(duration), 5250);
    EXPECT_LT(std::stoi(duration), 7000);
  }
  Logger().OnBluetoothEnabled(rig.flow().get());
  LogBoth(0);
  Logger().OnBluetoothDisabled();
  EXPECT_EQ(Records(kAdvertising).size(), 1u);
  EXPECT_EQ(Records(kAclData).size(), 1u);
}

}  // namespace
