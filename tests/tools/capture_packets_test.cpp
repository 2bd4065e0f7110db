// Captures as they are read: what the service writes comes back, and nothing in a file is trusted.
#include "tools/wire/capture_packets.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/vectors.h"

namespace test {
namespace {

// What a file of the format begins with (tests/data/capture_records.txt has what follows).
Bytes Head(const std::string& format) {
  if (format == "pcapng") {  // a section header, an interface of link type 201 with times in ns
    return ParseHex(
        "0A 0D 0D 0A 1C 00 00 00 4D 3C 2B 1A 01 00 00 00 FF*8 1C 00 00 00 "
        "01 00 00 00 20 00 00 00 C9 00 00 00 00 00 00 00 09 00 01 00 09 00 00 00 00 00 00 00 "
        "20 00 00 00");
  }
  return Concat(ParseHex("62 74 73 6E 6F 6F 70 00 00 00 00 01"),
                ParseHex(format == "monitor" ? "00 00 07 D1" : "00 00 03 EA"));
}

TEST(CapturePackets, WhatTheServiceWrites_IsRead) {
  for (const Vector& row : LoadVectors("capture_records.txt")) {
    SCOPED_TRACE(row.name);
    const Bytes record = ParseHex(row.fields.at(6));
    const auto packets = wire::ParseCapture(Concat(Head(row.fields.at(0)), record));
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_EQ(packets[0].from_controller, row.fields[1] == "in");
    EXPECT_EQ(static_cast<uint8_t>(packets[0].packet.type), ParseHex(row.fields[2])[0]);
    EXPECT_EQ(ToHex(packets[0].packet.bytes), ToHex(ParseHex(row.fields[3])));
    EXPECT_EQ(packets[0].lost_before, std::stoul(row.fields[4]));
  }
}

TEST(CapturePackets, Times_CountFromTheFirstPacketAndNeverFall) {
  const Bytes command =
      ParseHex("00 00 00 04 00 00 00 04 00*8 00 E2 E7 D7 27 4F A2 40 01 03 0C 00");
  Bytes later = command, earlier = command;
  later[23] += 5;  // µs
  earlier[23] -= 5;
  const auto packets =
      wire::ParseCapture(Concat(Concat(Concat(Head("btsnoop"), command), later), earlier));
  ASSERT_EQ(packets.size(), 3u);
  EXPECT_EQ(packets[0].time_ns, 0);
  EXPECT_EQ(packets[1].time_ns, 5000);
  EXPECT_EQ(packets[2].time_ns, 5000);
}

TEST(CapturePackets, WhatIsNoCapture_IsRefusedWithTheReason) {
  for (const Vector& row : LoadVectors("capture_files.txt")) {
    try {
      wire::ParseCapture(ParseHex(row.fields.at(0)));
      ADD_FAILURE() << row.name;
    } catch (const std::runtime_error& refused) {
      EXPECT_EQ(refused.what(), row.fields.at(1)) << row.name;
    }
  }
}

}  // namespace
}  // namespace test
