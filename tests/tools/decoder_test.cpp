#include "tools/hci/decoder.h"

#include <gtest/gtest.h>

#include <random>

namespace bthalctl {
namespace {

constexpr PacketType kCmd = PacketType::kCommand;
constexpr PacketType kEvt = PacketType::kEvent;
constexpr PacketType kAcl = PacketType::kAcl;
constexpr PacketType kIso = PacketType::kIso;

TEST(Decoder, Packets_InOneLine) {
  const struct {
    PacketType type;
    const char* bytes;
    const char* text;
  } rows[] = {
      {kCmd, "03 0C 00", "CMD Reset (0x0C03)"},
      {kCmd, "99 FC 02 AA BB", "CMD command 0xFC99 [AA BB]"},
      {kEvt, "0E 04 01 03 0C 00", "EVT Command Complete: Reset (0x0C03): Success"},
      {kEvt, "0E 0A 01 09 10 00 01 00 00 4B 56 5A",
       "EVT Command Complete: Read BD_ADDR (0x1009): Success [01 00 00 4B 56 5A]"},
      {kEvt, "0E 04 01 01 0C 12",
       "EVT Command Complete: Set Event Mask (0x0C01): Invalid HCI Command Parameters (0x12)"},
      {kEvt, "0E 03 01 00 00", "EVT Command Complete: no command"},
      {kEvt, "0F 04 00 01 0D 20", "EVT Command Status: LE Create Connection (0x200D): pending"},
      {kEvt, "05 04 00 40 00 16",
       "EVT Disconnection Complete: Success, handle 0x040, Connection Terminated By Local Host "
       "(0x16)"},
      {kEvt, "13 09 02 01 00 03 00 02 00 01 00",
       "EVT Number Of Completed Packets: handle 0x001 3: handle 0x002 1"},
      {kEvt, "3E 13 01 00 40 00 00 00 04 00 AD 4B 56 5A 06 00 00 00 90 01 00",
       "EVT LE Connection Complete: Success, handle 0x040, central, 5A:56:4B:AD:00:04 (public)"
       " [06 00 00 00 90 01 00]"},
      {kEvt, "3E 12 02 01 00 01 03 00 AD 4B 56 C2 06 05 09 4C 6F 6F 70 C6",
       "EVT LE Advertising Report: C2:56:4B:AD:00:03 (random) -58 dBm connectable \"Loop\""},
      {kEvt, "10 01 42", "EVT Hardware Error: code 0x42"},
      {kEvt, "FF 02 58 05", "EVT Quality Report [05]"},
      {kEvt, "77 00", "EVT event 0x77"},
      {kAcl, "40 20 07 00 03 00 04 00 0A 03 00",
       "ACL handle 0x040, 7 bytes: ATT Read Request [03 00]"},
      {kAcl, "40 10 02 00 AA BB", "ACL handle 0x040, 2 bytes [AA BB]"},
      {kIso, "00 2E 02 00 AA BB", "ISO handle 0xE00, 2 bytes [AA BB]"},
      // Lies and stumps.
      {kCmd, "03 0C", "CMD shorter than its header [03 0C]"},
      {kEvt, "0E 05 01 03 0C 00", "EVT says it has 7 bytes but has 6 [0E 05 01 03 0C 00]"},
      {kEvt, "0E 02 01 03", "EVT Command Complete: command 0x0003 (ends early)"},
      {kEvt, "13 05 02 01 00 03 00",
       "EVT Number Of Completed Packets: handle 0x001 3: handle 0x000 0 (ends early)"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Describe({row.type, ParseHex(row.bytes)}), row.text) << row.bytes;
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
