#include "tools/hci/decoder.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "support/vectors.h"

namespace bthalctl {
namespace {

constexpr PacketType kEvt = PacketType::kEvent;

TEST(Decoder, Packets_InOneLine) {
  const std::map<std::string, PacketType> types = {{"cmd", PacketType::kCommand},
                                                   {"evt", kEvt},
                                                   {"acl", PacketType::kAcl},
                                                   {"iso", PacketType::kIso}};
  for (const test::Vector& row : test::LoadVectors("decoder.txt")) {
    EXPECT_EQ(Describe({types.at(row.name), ParseHex(row.fields[0])}), row.fields[1]);
  }
}

TEST(Decoder, Advertisements_OfBothForms) {
  // Two reports in one event; the second is a scan response with a shortened name.
  const auto legacy =
      Advertisements({kEvt, ParseHex("3E 20 02 02"
                                     " 00 00 01 02 03 04 05 06 03 02 01 06 D4"
                                     " 04 01 11 12 13 14 15 16 04 03 08 41 42 7F")});
  ASSERT_EQ(legacy.size(), 2u);
  EXPECT_EQ(AddressText(legacy[0].address), "06:05:04:03:02:01");
  EXPECT_TRUE(legacy[0].connectable);
  EXPECT_EQ(legacy[0].rssi, -44);
  EXPECT_TRUE(legacy[1].scan_response);
  EXPECT_FALSE(legacy[1].connectable);
  EXPECT_EQ(legacy[1].name, "AB");

  const auto extended = Advertisements(
      {kEvt,
       ParseHex("3E 1E 0D 01 13 00 01 01 02 03 04 05 06 01 00 FF 7F C0 00 00 00 00 00 00 00 00 00"
                " 04 03 09 4F 4B")});
  ASSERT_EQ(extended.size(), 1u);
  EXPECT_TRUE(extended[0].random);
  EXPECT_TRUE(extended[0].connectable);
  EXPECT_EQ(extended[0].rssi, -64);
  EXPECT_EQ(extended[0].name, "OK");
}

TEST(Decoder, AnyBytes_AreDescribedWithoutHarm) {
  std::mt19937 random(1);
  for (int i = 0; i < 50'000; ++i) {
    Bytes bytes(random() % 40);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    // Half of them with a true length, so that they are read to their end.
    if (bytes.size() >= 4 && i % 2 == 0) {
      bytes[0] = i % 4 == 0 ? 0x3E : static_cast<uint8_t>(random() % 0x40);
      bytes[1] = static_cast<uint8_t>(bytes.size() - 2);
      if (bytes[0] == 0x3E) bytes[2] = i % 8 == 0 ? 0x02 : 0x0D;
    }
    const Packet packet{static_cast<PacketType>(1 + random() % 5), bytes};
    EXPECT_EQ(Describe(packet).find('\n'), std::string::npos);
  }
}

}  // namespace
}  // namespace bthalctl
