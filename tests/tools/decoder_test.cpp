#include "tools/hci/decoder.h"

#include <gtest/gtest.h>

#include <map>

#include "support/vectors.h"

namespace bthalctl {
namespace {

TEST(Decoder, Packets_InOneLine) {
  const std::map<std::string, PacketType> types = {{"cmd", PacketType::kCommand},
                                                   {"evt", PacketType::kEvent},
                                                   {"acl", PacketType::kAcl},
                                                   {"iso", PacketType::kIso}};
  for (const test::Vector& row : test::LoadVectors("decoder.txt")) {
    EXPECT_EQ(Describe({types.at(row.name), ParseHex(row.fields[0])}), row.fields[1]);
  }
}

}  // namespace
}  // namespace bthalctl
