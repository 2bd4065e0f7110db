#include "tools/hci/packet.h"

#include <gtest/gtest.h>

#include "fake_link.h"
#include "tools/base/failure.h"
#include "tools/h4/h4_framer.h"
#include "tools/hci/names.h"

namespace bthalctl {
namespace {

TEST(Hex, WhatPeopleWrite_IsTaken) {
  const Bytes expected = {0x01, 0xAB, 0xFF};
  for (const char* text : {"01 ab FF", "01abff", "01:AB:ff", "0x01,0xab,0xFF", " 01  ABff "}) {
    EXPECT_EQ(ParseHex(text), expected) << text;
  }
  EXPECT_TRUE(ParseHex("").empty());
}

TEST(Hex, Mistakes_AreNamedByTheirPlace) {
  const struct {
    const char* text;
    const char* place;
  } rows[] = {{"0G", "character 1"},
              {"01 2", "character 4"},
              {"0x", "nothing after 0x"},
              {"01-02", "character 3"},
              {"1 2", "character 1"}};
  for (const auto& row : rows) {
    try {
      ParseHex(row.text);
      ADD_FAILURE() << row.text << " was taken";
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.code(), ExitCode::kUsage);
      EXPECT_NE(std::string(failure.what()).find(row.place), std::string::npos) << failure.what();
    }
  }
}

TEST(Names, Opcodes_ByNumberAndByName) {
  for (const char* text : {"0x0C03", "0xc03", "Reset", "RESET"}) {
    EXPECT_EQ(ParseOpcode(text), 0x0C03) << text;
  }
  EXPECT_EQ(ParseOpcode("read_bd_addr"), 0x1009);
  EXPECT_EQ(ParseOpcode("le-set-scan-enable"), 0x200C);
  for (const char* text : {"", "0x", "0x0", "0x10000", "0x0C03x", "3075", "res"}) {
    EXPECT_FALSE(ParseOpcode(text)) << text;
  }
}

TEST(Address, TextBothWays) {
  const Bytes on_air = {0x04, 0x00, 0xAD, 0x4B, 0x56, 0x5A};
  EXPECT_EQ(AddressText(on_air), "5A:56:4B:AD:00:04");
  EXPECT_EQ(ParseAddress("5a:56:4B:AD:00:04"), on_air);
  for (const char* text : {"", "5A:56:4B:AD:00", "5A:56:4B:AD:00:0G", "5A-56-4B-AD-00-04"}) {
    EXPECT_FALSE(ParseAddress(text)) << text;
  }
}

// One of each type that a host sends, as it is on an H4 line (Bluetooth Core 5.3, Vol 4, Part A,
// 2).
const std::vector<Bytes> kHostPackets = {
    {0x01, 0x03, 0x0C, 0x00},                          // Reset
    {0x02, 0x01, 0x20, 0x03, 0x00, 0xAA, 0xBB, 0xCC},  // ACL, 3 bytes
    {0x03, 0x02, 0x00, 0x02, 0xDD, 0xEE},              // SCO, 2 bytes
    {0x05, 0x03, 0x20, 0x02, 0xC0, 0x11, 0x22},        // ISO, reserved bits of the length set
    {0x01, 0x01, 0x0C, 0x08, 1, 2, 3, 4, 5, 6, 7, 8},
};

TEST(H4Framer, SplitAtEveryByte_YieldsTheSamePackets) {
  Bytes stream;
  std::vector<Packet> expected;
  for (const Bytes& packet : kHostPackets) {
    stream.insert(stream.end(), packet.begin(), packet.end());
    expected.push_back(
        {static_cast<PacketType>(packet[0]), Bytes(packet.begin() + 1, packet.end())});
  }
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    H4Framer framer;
    std::vector<Packet> packets;
    const auto keep = [&](Packet packet) { packets.push_back(std::move(packet)); };
    EXPECT_TRUE(framer.Push(stream.data(), cut, keep));
    EXPECT_TRUE(framer.Push(stream.data() + cut, stream.size() - cut, keep));
    EXPECT_EQ(packets, expected) << "cut at " << cut;
  }
}

TEST(H4Framer, ByteThatIsNoHostType_IsRefusedAfterTheWholePackets) {
  for (const uint8_t bad : Bytes{0x00, 0x04, 0x06, 0xFF}) {
    Bytes stream = kHostPackets[0];
    stream.push_back(bad);
    H4Framer framer;
    int packets = 0;
    EXPECT_FALSE(framer.Push(stream.data(), stream.size(), [&](const Packet&) { ++packets; }));
    EXPECT_EQ(packets, 1);
    EXPECT_EQ(framer.bad_type(), bad);
  }
}

TEST(H4Framer, LongestAcl_IsWhole) {
  Bytes stream = {0x02, 0x01, 0x20, 0xFF, 0xFF};
  stream.resize(5 + 65535, 0x5A);
  H4Framer framer;
  size_t size = 0;
  EXPECT_TRUE(framer.Push(stream.data(), stream.size(),
                          [&](const Packet& packet) { size = packet.bytes.size(); }));
  EXPECT_EQ(size, 4u + 65535u);
}

}  // namespace
}  // namespace bthalctl
