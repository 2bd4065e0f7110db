// The vendor commands behind the service's extensions, and what the controller sends by itself.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/sim/host.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

// The next reading of the kernel file.
std::string TimeSync(const Host& host) {
  char record[20];
  const int fd = open((host.root() + "/proc/bluetooth/timesync").c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t count = read(fd, record, sizeof(record));
  close(fd);
  return {record, static_cast<size_t>(count > 0 ? count : 0)};
}

TEST(SimulatorExtensions, EachField_IsChecked) {
  ReadyHost host;
  for (const Vector& row : LoadVectors("simulator_commands.txt")) {
    SCOPED_TRACE(row.name + " " + row.fields[1]);
    const Bytes answer = host.Command(static_cast<uint16_t>(std::stoul(row.fields[0], nullptr, 16)),
                                      B(row.fields[1]));
    ASSERT_GE(answer.size(), 7u);
    EXPECT_EQ(answer[1], 0x0E);
    EXPECT_EQ(answer[6], B(row.fields[2])[0]);
  }
}

TEST(SimulatorExtensions, State_IsInTheStatusFileUntilReset) {
  ReadyHost host;
  EXPECT_TRUE(host.StatusHolds("\"channel_map\": \"ff ff ff ff ff ff ff ff ff ff\""));
  host.Command(0x0C3F, B("00 ff ff ff ff ff ff ff ff 7f"));
  host.Command(0xFE69, B("05 28 14 08 28 14 08 28 14 08 28 14 08"));
  host.Command(0xFE69, B("01 28 14 08 28 14 08 28 14 08 28 14 08"));  // refused
  host.Command(0xFE20, B("14 01 ff 00 60 ea"));
  host.Command(0xFD63, B("01 66 55 44 33 22 11 01 00 ff 18"));
  host.Command(0xFD63, B("01 06 05 04 03 02 01 01 00 18"));
  EXPECT_TRUE(host.StatusHolds("\"11:22:33:44:55:66\": \"18 ff\""));
  const std::string status = host.Status();
  EXPECT_THAT(status, HasSubstr("\"channel_map\": \"00 ff ff ff ff ff ff ff ff 7f\""));
  EXPECT_THAT(status, HasSubstr("\"sar_format\": 5"));
  EXPECT_THAT(status, HasSubstr("\"sar_caps\": \"28 14 08 28 14 08 28 14 08 28 14 08\""));
  EXPECT_THAT(status, HasSubstr("\"ewp_interval\": 60000"));
  EXPECT_THAT(status, HasSubstr("\"01:02:03:04:05:06\": \"18\""));
  host.Command(0x0C03);
  EXPECT_TRUE(host.StatusHolds("\"sar_format\": 0"));
  const std::string reset = host.Status();
  EXPECT_THAT(reset, HasSubstr("\"ewp_interval\": 0"));
  EXPECT_THAT(reset, HasSubstr("\"ccc\": {}"));
}

TEST(SimulatorExtensions, LinkLayerEvents_MatchTheTimeSyncFile) {
  ReadyHost host(
      "after 0x1801 nth 1 link-layer 11:22:33:44:55:66 phy rx\n"
      "after 0x1801 nth 2 toggle 2\n"
      "after 0x1801 nth 2 link-layer 11:22:33:44:55:66 connect\n"  // not registered
      "after 0x1801 nth 2 link-layer 11:22:33:44:55:67 phy\n"      // likewise
      "after 0x1801 nth 2 link-layer 11:22:33:44:55:66 phy tx\n");
  EXPECT_EQ(host.Command(0xFD63, B("01 66 55 44 33 22 11 01 00 18"))[6], 0);
  EXPECT_EQ(TimeSync(host), "");
  std::optional<uint64_t> difference;  // system time minus Bluetooth time
  unsigned readings = 0;
  for (const unsigned toggles : {1u, 4u}) {
    host.Send(B("01 01 18 00"));
    const Bytes event = host.Find(B("04 ff"));
    ASSERT_EQ(event.size(), 26u);
    EXPECT_EQ(Bytes(event.begin(), event.begin() + 10), B("04 ff 17 d0 66 55 44 33 22 11"));
    EXPECT_EQ(event[11], toggles == 1 ? 1 : 0) << "direction";
    EXPECT_EQ(event[20], 0x18);
    EXPECT_EQ(event[21], toggles);
    uint64_t reading = 0;
    for (; readings < toggles; ++readings) {
      const std::string text = TimeSync(host);
      ASSERT_EQ(text.size(), 20u) << "a toggle that the kernel has not recorded";
      reading = std::stoull(text);
    }
    EXPECT_EQ(TimeSync(host), "");
    const uint64_t offset = Little(event, 22, 2);
    const uint64_t bluetooth = Little(event, 12, 8);
    if (!difference) difference = reading - offset - bluetooth;
    EXPECT_EQ(reading - offset, bluetooth + *difference);
  }
}

TEST(SimulatorExtensions, Connection_ReportsItsLinkLayerEvents) {
  ReadyHost host;
  const Bytes loop = B("03 00 ad 4b 56 c2");
  host.Command(0x0C01, B("ff ff ff ff ff ff ff 3f"));
  EXPECT_EQ(host.Command(0xFD63, B("01") + loop + B("01 00 ff 18"))[6], 0);
  EXPECT_EQ(host.Command(0x200D, B("10 00 10 00 00 01") + loop +
                                     B("00 06 00 06 00 00 00 c8 00 00 00 00 00"))[3],
            0);
  const Bytes connect = host.Find(B("04 ff 17 d0") + loop);
  ASSERT_EQ(connect.size(), 26u);
  EXPECT_EQ(connect[20], 0xFF);
  EXPECT_EQ(connect[21], 1);
  EXPECT_EQ(Little(connect, 24, 2), 0u) << "before the first connection event";
  const Bytes complete = host.Find(B("04 3e"));
  ASSERT_GE(complete.size(), 7u);
  EXPECT_EQ(host.Command(0x2032, {complete[5], complete[6], 0, 1, 1, 0, 0})[3], 0);
  const Bytes phy = host.Find(B("04 ff 17 d0") + loop);
  ASSERT_EQ(phy.size(), 26u);
  EXPECT_EQ(phy[20], 0x18);
  EXPECT_EQ(phy[21], 2);
}

TEST(SimulatorExtensions, EwpRecords_ComeAtTheirIntervalUntilOff) {
  ReadyHost host("after 0x1801 nth 1 ewp-iso 3\nafter 0x1801 nth 2 ewp 0\n");
  EXPECT_EQ(host.Command(0xFE20, B("14 01 ff 00 0a 00"))[6], 0);
  uint64_t before = 0;
  for (uint32_t number = 0; number < 5; ++number) {
    const Bytes record = host.Next();
    ASSERT_EQ(record.size(), 45u);
    EXPECT_EQ(Bytes(record.begin(), record.begin() + 5), B("02 00 2e 28 00"));
    EXPECT_EQ(Little(record, 5, 4), number);
    const uint64_t time = Little(record, 9, 4);
    if (number > 0) {
      EXPECT_GE(time, before + 9) << "ms";
    }
    before = time;
    EXPECT_EQ(record[44], 31);
  }
  EXPECT_EQ(host.Command(0xFE20, B("14 00 ff 00 00 00"))[6], 0);
  EXPECT_TRUE(host.Raw(milliseconds(50)).empty());
  host.Send(B("01 01 18 00"));
  const Bytes iso = host.Find(B("05"));
  ASSERT_EQ(iso.size(), 8u);
  EXPECT_EQ(Bytes(iso.begin(), iso.begin() + 5), B("05 00 2d 03 00"));
  host.Send(B("01 01 18 00"));
  EXPECT_EQ(host.Find(B("02")), B("02 00 2e 00 00"));
}

TEST(SimulatorExtensions, QualityReports_HaveTheirVersionsLayout) {
  struct Row {
    const char* version;
    size_t size;   // of the event
    size_t radio;  // position of RSSI_C0
  };
  for (const Row& row : {Row{"0x0100", 197, 187}, Row{"0x0101", 248, 151}}) {
    SCOPED_TRACE(row.version);
    Host host({"--chip", "ready", "--vendor-version", row.version},
              "after 0x1801 nth 1 quality lsto 0x0123\nafter 0x1801 nth 2 quality le-audio\n");
    host.PowerUp();
    const Bytes capabilities = host.Command(0xFD53);
    ASSERT_GE(capabilities.size(), 17u);
    EXPECT_EQ(Little(capabilities, 15, 2), std::stoull(row.version, nullptr, 16));
    host.Send(B("01 01 18 00"));
    Bytes report = host.Find(B("04 ff"));
    report.erase(report.begin());
    ASSERT_EQ(report.size(), row.size);
    EXPECT_EQ(report[1], row.size - 2);
    EXPECT_EQ(report[2], 0x58);
    EXPECT_EQ(report[3], 2);
    EXPECT_EQ(Little(report, 5, 2), 0x0123u);
    const auto radio = report.begin() + static_cast<ptrdiff_t>(row.radio);
    EXPECT_EQ(Bytes(radio, radio + 10), B("c4 c3 0a 09 ff fe 11 12 13 14"));
    if (row.size == 248) {
      EXPECT_EQ(Bytes(report.begin() + 229, report.begin() + 232), B("5a 50 46"));
    }
    host.Send(B("01 01 18 00"));
    EXPECT_EQ(host.Find(B("04 ff")).at(4), 7);
  }
}

TEST(SimulatorExtensions, LatencyTrace_MayAnnounceMoreThanItCarries) {
  ReadyHost host(
      "after 0x1801 nth 1 latency-trace 2\nafter 0x1801 nth 2 latency-trace 255 1\n"
      "after 0x1801 nth 3 latency-trace 200\n");
  const Bytes head = B("58 20 00 40 00");
  const Bytes first = B("00 00 08 00 0c 00 10 00");
  const Bytes base = B("e8 03 00 00");
  host.Send(B("01 01 18 00"));
  EXPECT_EQ(host.Find(B("04 ff")),
            B("04 ff 1a") + head + B("02") + base + first + B("20 00 10 00 18 00 20 00"));
  host.Send(B("01 01 18 00"));
  EXPECT_EQ(host.Find(B("04 ff")), B("04 ff 12") + head + B("ff") + base + first);
  host.Send(B("01 01 18 00"));
  EXPECT_EQ(host.Find(B("04 ff")).size(), 3 + 10 + 30 * 8u);
}

TEST(SimulatorExtensions, ActivityCounters_AreAmountsSinceTheLastAnswer) {
  constexpr size_t kBlock = 24;
  constexpr size_t kFirst = 8;  // behind the type byte
  ReadyHost host(
      "on 0x1801 activity tx 3 120ms\non 0x1801 activity rx 4 70ms\n"
      "on 0xFD59 nth 4 truncated\n");
  const auto entries = [&](const Bytes& answer, size_t state) {
    return Little(answer, kFirst + state * kBlock, 4);
  };
  const auto time = [&](const Bytes& answer, size_t state) {
    return Little(answer, kFirst + state * kBlock + 4, 4);
  };
  const auto last = [&](const Bytes& answer, size_t state) {
    return Little(answer, kFirst + state * kBlock + 8, 8);
  };
  host.Command(0x1801);
  Bytes answer = host.Command(0xFD59, B("01"));
  ASSERT_EQ(answer.size(), 104u);
  EXPECT_EQ(Bytes(answer.begin(), answer.begin() + 8), B("04 0e 65 01 59 fd 00 01"));
  EXPECT_EQ(entries(answer, 2), 3u);
  EXPECT_EQ(time(answer, 2), 120u);
  EXPECT_EQ(entries(answer, 3), 4u);
  EXPECT_EQ(time(answer, 3), 70u);
  EXPECT_EQ(last(answer, 1), 0u) << "never active";
  const uint64_t when = last(answer, 2);

  // Legacy scanning with the receiver on half of the time.
  host.Command(0x0C01, B("ff ff ff ff ff ff ff 3f"));
  host.Command(0x200B, B("00 20 00 10 00 00 00"));
  host.Command(0x200C, B("01 00"));
  for (int i = 0; i < 5; ++i) ASSERT_FALSE(host.Find(B("04 3e")).empty());
  host.Command(0x200C, B("00 00"));
  answer = host.Command(0xFD59, B("01"));
  ASSERT_EQ(answer.size(), 104u);
  EXPECT_EQ(entries(answer, 2), 0u);
  EXPECT_EQ(time(answer, 2), 0u);
  EXPECT_EQ(last(answer, 2), when);
  EXPECT_GE(time(answer, 3), 20u) << "five advertisements take 40 ms and more";
  EXPECT_EQ(time(answer, 1), time(answer, 3));
  EXPECT_GE(time(answer, 0) + 1, time(answer, 3)) << "the other half it idles";
  EXPECT_GT(entries(answer, 3), 1u);
  EXPECT_GT(last(answer, 3), 0u);

  answer = host.Command(0xFD59, B("01"));
  EXPECT_EQ(time(answer, 3), 0u);
  host.Send(B("01 59 fd 01 01"));
  EXPECT_EQ(host.Raw().size(), 103u);
}

}  // namespace
}  // namespace test
