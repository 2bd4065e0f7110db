// What a scenario file does to the serial line and the answers on it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <functional>

#include "tests/sim/host.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const Bytes kReset = B("01 03 0c 00");
const Bytes kResetDone = B("04 0e 04 01 03 0c 00");
const Bytes kReadMode = B("01 01 18 00");
const Bytes kReadModeDone = B("04 0e 05 01 01 18 00 00");

TEST(SimulatorFaults, AnswerToOneCommand_IsChangedAndTheNextIsNot) {
  for (const Vector& row : LoadVectors("simulator_faults.txt")) {
    SCOPED_TRACE(row.name);
    ReadyHost host("# a fault\non 0x0C03 nth 1 " + row.name + "\n");
    host.Send(kReset);
    const Bytes answer = B(row.fields.at(0));
    EXPECT_EQ(host.Raw(answer.size()), answer);
    host.Send(kReadMode);
    EXPECT_EQ(host.Raw(), kReadModeDone);
    EXPECT_EQ(host.Command(0x0C03), kResetDone);
  }
}

TEST(SimulatorFaults, AnswerToAnUnknownCommand_IsTheScenarios) {
  Host host({},
            "on 0x0C7E nth 1 answer 00 05\non 0x2003 nth 1 answer\non 0xFCAA nth 1 answer 0c\n");
  host.PowerUp();  // the chip has no patch yet and knows no LE commands
  EXPECT_EQ(host.Command(0x0C7E), B("04 0e 05 01 7e 0c 00 05"));
  EXPECT_EQ(host.Command(0x2003), B("04 0e 03 01 03 20"));
  EXPECT_EQ(host.Command(0xFCAA), B("04 0e 04 01 aa fc 0c"));
  EXPECT_EQ(host.Command(0x0C7E), B("04 0f 04 01 01 7e 0c")) << "the first time only";
}

TEST(SimulatorFaults, LateAnswer_ComesAfterItsTime) {
  ReadyHost host("on 0x0C03 late 150ms\n");
  const auto start = steady_clock::now();
  EXPECT_EQ(host.Command(0x0C03), kResetDone);
  EXPECT_GE(steady_clock::now() - start, milliseconds(150));
}

TEST(SimulatorFaults, HangUp_EndsTheLineAndTheNextOpenWorks) {
  ReadyHost host("after 0x0C03 nth 1 hangup\n");
  host.Send(kReset);
  EXPECT_TRUE(WaitFor([&] {
    host.Raw(milliseconds(10));
    return host.HungUp();
  }));
  host.PowerUp();
  EXPECT_EQ(host.Command(0x0C03), kResetDone);
}

TEST(SimulatorFaults, Silence_LastsItsTimeOrUntilPowerOff) {
  ReadyHost host("on 0x0C03 nth 1 silence 100ms\non 0x0C03 nth 2 silence\n");
  host.Send(kReset);
  EXPECT_TRUE(WaitFor([&] {
    host.Send(kReadMode);
    return host.Raw(milliseconds(20)) == kReadModeDone;
  })) << "the silence ends";
  host.Send(kReset + kReadMode);
  EXPECT_TRUE(host.Raw(milliseconds(150)).empty());
  host.PowerUp();
  EXPECT_EQ(host.Command(0x0C03), kResetDone);
}

TEST(SimulatorFaults, SplitAndMerge_ChangeTheWritesOnly) {
  ReadyHost split("power split 3 30ms\n");
  split.Send(kReset);
  EXPECT_EQ(split.Raw(), B("04 0e 04"));
  EXPECT_EQ(split.Raw(), B("01 03 0c 00"));

  ReadyHost merge("power merge 2 60s\n");
  merge.Send(kReset);
  EXPECT_TRUE(merge.StatusHolds("\"packets_to_host\": 1"));
  EXPECT_TRUE(merge.Raw(milliseconds(20)).empty());
  merge.Send(kReadMode);
  EXPECT_EQ(merge.Raw(), kResetDone + kReadModeDone);
}

TEST(SimulatorFaults, Triggers_CountAndWait) {
  ReadyHost host(
      "at 1ms inject 04 ff 01 00  # nobody listens yet\n"
      "power nth 2 50ms stray 0x51\n"
      "on 0x1801 from 3 stray 0x52\n"
      "after 0x1801 nth 2 stray 0x53\n");
  host.Settle(milliseconds(20));
  for (const Bytes& expected :
       {kReadModeDone, kReadModeDone + B("53"), B("52") + kReadModeDone, B("52") + kReadModeDone}) {
    host.Send(kReadMode);
    EXPECT_EQ(host.Raw(expected.size()), expected);
  }
  host.PowerUp();
  EXPECT_EQ(host.Raw(), B("51"));
}

TEST(SimulatorFaults, WrongSpeedAndBrownOut_LoseTheHostUntilItFollows) {
  ReadyHost host("after 0x1801 nth 1 speed 3000000\non 0x1801 nth 2 brown-out\n");
  EXPECT_EQ(host.Command(0x1801), kReadModeDone);
  EXPECT_TRUE(host.StatusHolds("\"speed_baud\": 3000000"));
  host.SetSpeed(3000000);
  EXPECT_EQ(host.Command(0xFC01, B("01 02 03 04 05 06"))[6], 0);
  EXPECT_TRUE(host.StatusHolds("\"address\": \"06:05:04:03:02:01\""));
  host.Send(kReadMode);
  EXPECT_TRUE(host.Started());
  EXPECT_TRUE(host.StatusHolds("\"speed_baud\": 115200"));
  EXPECT_TRUE(host.StatusHolds("\"address\": \"5A:56:4B:F0:00:00\"")) << "it forgot everything";
  EXPECT_TRUE(host.StatusHolds("\"power_cycles\": 1,"));
  host.SetSpeed(115200);
  EXPECT_EQ(host.Command(0x0C03), kResetDone) << "the command that met the dip is lost";
}

// The events of a dump, joined: what lies behind each event's head of so many bytes.
Bytes Joined(Host& host, const Bytes& start, size_t head, const std::function<bool(Bytes)>& last) {
  Bytes joined;
  for (;;) {
    const Bytes event = host.Find(start);
    if (event.size() < head) {
      ADD_FAILURE() << "the dump ends without its last fragment";
      return joined;
    }
    joined.insert(joined.end(), event.begin() + static_cast<ptrdiff_t>(head), event.end());
    if (last(event)) return joined;
  }
}

TEST(SimulatorDumps, InFragments_AreWholeAndInOrder) {
  Bytes expected;
  for (uint32_t word = 0; word < 3000; word += 4) {
    const auto low = static_cast<uint8_t>(word);
    expected = expected + Bytes{low, static_cast<uint8_t>(word >> 8), 0, 0};
  }
  ReadyHost host(
      "after 0x1801 nth 1 debug-info 3000\nafter 0x1801 nth 2 soc-dump 3000\n"
      "after 0x1801 nth 3 chre-dump 3000\n");
  host.Send(kReadMode);
  unsigned number = 0;
  EXPECT_EQ(Joined(host, B("04 ff"), 10,
                   [&](const Bytes& event) {
                     EXPECT_EQ(event[3], 0x57);
                     EXPECT_EQ(event[5], number++);
                     return event[6] != 0;
                   }),
            expected);
  EXPECT_EQ(number, 13u);  // 248 bytes each
  for (const uint8_t report : {uint8_t{0x13}, uint8_t{0x14}}) {
    host.Send(kReadMode);
    number = 0;
    EXPECT_EQ(Joined(host, B("04 ff"), 7,
                     [&](const Bytes& event) {
                       const bool last = event[5] == 0x5A && event[6] == 0x00;
                       EXPECT_EQ(event[4], report);
                       EXPECT_TRUE(last || (event[5] == 0 && event[6] == number)) << number;
                       ++number;
                       return last;
                     }),
              expected);
    EXPECT_EQ(number, 12u);  // 251 bytes each
  }
  EXPECT_EQ(host.Command(0xFD5B), B("04 0e 04 01 5b fd 00"));
  const Bytes dump = Joined(host, B("04 ff"), 10, [](const Bytes& event) { return event[6] != 0; });
  EXPECT_EQ(dump.size(), 8192u);
}

TEST(SimulatorTimeSync, Records_AreReadOneAtATimeAndThenNothing) {
  Host host({"--chip", "ready"}, "power timesync 1234567\npower timesync 89\n");
  const int fd = open((host.root() + "/proc/bluetooth/timesync").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  char record[32];
  EXPECT_EQ(read(fd, record, 20), 0) << "does not wait";
  host.PowerUp();
  EXPECT_EQ(host.Command(0x0C03), kResetDone);
  for (const char* expected : {"1234567             ", "89                  "}) {
    ASSERT_EQ(read(fd, record, 20), 20);
    EXPECT_EQ(std::string(record, 20), expected);
  }
  EXPECT_EQ(read(fd, record, 20), 0);
  close(fd);
}

TEST(SimulatorCoex, Notice_IsFourBytesAndTheAcknowledgementIsCounted) {
  Host host({"--chip", "ready"},
            "after 0x0C03 coex 0x43\nafter 0x1801 coex-message 02 01 01 42 07\n"
            "after 0x1802 coex-hangup\n");
  const int fd = open((host.root() + "/dev/wbrc").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  host.PowerUp();
  EXPECT_EQ(host.Command(0x0C03), kResetDone);
  Bytes notice(64);
  const ssize_t count = read(fd, notice.data(), notice.size());
  ASSERT_EQ(count, 4);
  notice.resize(4);
  EXPECT_EQ(notice[0], 1);
  EXPECT_EQ(notice[2], 1);
  EXPECT_EQ(notice[3], 0x43);
  const Bytes acknowledgement = B("02 02 04 81");
  EXPECT_EQ(write(fd, acknowledgement.data(), 4), 4);
  EXPECT_TRUE(host.StatusHolds("\"coex_acknowledged\": 1"));
  host.Command(0x1801);
  notice.resize(64);
  ASSERT_EQ(read(fd, notice.data(), notice.size()), 5);
  notice.resize(5);
  EXPECT_EQ(notice, B("02 01 01 42 07"));
  host.Command(0x1802, B("00"));
  pollfd hung_up{fd, 0, 0};
  EXPECT_EQ(poll(&hung_up, 1, 30000), 1);
  EXPECT_NE(hung_up.revents & POLLHUP, 0);
  const int fresh = open((host.root() + "/dev/wbrc").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_GE(fresh, 0);
  close(fresh);
  close(fd);
}

}  // namespace
}  // namespace test
