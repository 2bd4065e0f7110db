// Bursts of packets in real time.

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "bluetooth_Activity.h"
#include "bthal/uart_rig.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace {

using namespace android::hardware::bluetooth::V1_1::zvkbtlinux::activity;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

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

// Packets of both kinds for a time, each pause shorter than 2 s. Returns how many of each.
int Send(seconds time) {
  const auto start = steady_clock::now();
  int count = 0;
  // Pauses of 0.5, 1 and 1.5 s; the last packet at the end.
  for (auto at = start; at <= start + time; at += milliseconds(500 * (1 + count % 3))) {
    std::this_thread::sleep_until(at);
    Logger().LogActivities(4, test::ParseHex(count % 2 == 0 ? "3E 02 02 01" : "3E 02 0D 01"));
    Logger().LogActivities(2, test::ParseHex("40 20 01 00 AA"));
    ++count;
  }
  return count;
}

TEST(ActivitySlow, SixSecondsOfPackets_MakeARecordAndTwoSecondsNone) {
  test::UartRig rig;
  ASSERT_TRUE(rig.Open());
  Logger().OnBluetoothEnabled(rig.flow().get());
  const std::string count = std::to_string(Send(seconds(6)));
  ASSERT_TRUE(test::WaitFor([] { return !Records(kAdvertising).empty(); }));
  ASSERT_TRUE(test::WaitFor([] { return !Records(kAclData).empty(); }));
  const std::vector<std::string> advertising = Records(kAdvertising)[0];
  ASSERT_EQ(advertising.size(), 4u);
  EXPECT_EQ(advertising[3], count);
  const std::vector<std::string> acl = Records(kAclData)[0];
  ASSERT_EQ(acl.size(), 5u);
  EXPECT_EQ(acl[2], "64");  // handle 0x040 without its flags
  EXPECT_EQ(acl[4], count);
  // The packets' 6 s and the 2 s after the last one; more on a busy machine.
  for (const std::string& duration : {advertising[2], acl[3]}) {
    EXPECT_GE(std::stoi(duration), 7990);
    EXPECT_LT(std::stoi(duration), 9500);
  }

  Send(seconds(2));
  std::this_thread::sleep_for(milliseconds(2500));
  EXPECT_EQ(Records(kAdvertising).size(), 1u);
  EXPECT_EQ(Records(kAclData).size(), 1u);
  Logger().OnBluetoothDisabled();
  EXPECT_EQ(Records(kAdvertising).size(), 1u);
}

// Off ends a burst at once: 5.1 s are enough, and nothing of it is left for the next time.
TEST(ActivitySlow, OffEndsABurst) {
  test::UartRig rig;
  ASSERT_TRUE(rig.Open());
  Logger().OnBluetoothEnabled(rig.flow().get());
  const size_t before = Records(kAclData).size();
  for (int i = 0; i < 5; ++i) {
    Logger().LogActivities(2, test::ParseHex("01 00 01 00 AA"));
    std::this_thread::sleep_for(milliseconds(1050));
  }
  Logger().OnBluetoothDisabled();
  ASSERT_EQ(Records(kAclData).size(), before + 1);
  const std::vector<std::string> record = Records(kAclData).back();
  EXPECT_EQ(record[4], "5");
  EXPECT_GE(std::stoi(record[3]), 5250);
  Logger().OnBluetoothEnabled(rig.flow().get());
  Logger().LogActivities(2, test::ParseHex("01 00 01 00 AA"));
  Logger().OnBluetoothDisabled();
  EXPECT_EQ(Records(kAclData).size(), before + 1);
}

}  // namespace
