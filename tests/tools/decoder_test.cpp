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
