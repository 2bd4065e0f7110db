
#include <gtest/gtest.h>

#include <random>

#include "sim/wire.h"

namespace zvk {
namespace {

struct Seen {
  std::vector<Bytes> packets;  // with type byte
  std::vector<uint8_t> lost;
  H4Framer framer;

  explicit Seen(H4Framer::From from)
      : framer(
            from,
            [this](PacketType type, ByteView packet) {
              packets.push_back(Writer{static_cast<uint8_t>(type)}.Append(packet).bytes());
            },
            [this](uint8_t bad) { lost.push_back(bad); }) {}
};

Bytes Filled(std::initializer_list<uint8_t> header, size_t payload) {
  Writer packet(header);
  for (size_t i = 0; i < payload; ++i) packet.U8(i & 0xFF);
  return packet.bytes();
}

// Type byte and header from Bluetooth Core 5.3, Vol 4, Part E, 5.4.
std::vector<Bytes> HostPackets() {
  return {
      Filled({0x01, 0x03, 0x0C, 0x00}, 0),
      Filled({0x01, 0x4C, 0xFC, 0xFF}, 255),
      Filled({0x02, 0x40, 0x00, 0x00, 0x00}, 0),
      Filled({0x02, 0x40, 0x00, 0x05, 0x01}, 0x105),
      Filled({0x02, 0x40, 0x00, 0xFF, 0xFF}, 0xFFFF),
      Filled({0x03, 0x02, 0x00, 0xFF}, 255),
      Filled({0x05, 0x00, 0x20, 0x01, 0xC1}, 0x101),  // the upper two bits are no length
      Filled({0x05, 0x00, 0x20, 0xFF, 0xFF}, 0x3FFF),
      Filled({0x03, 0x02, 0x00, 0x00}, 0),
  };
}

TEST(SimulatorFramer, SplitAtEveryByte_YieldsTheSamePackets) {
  std::vector<Bytes> packets = HostPackets();
  Bytes stream;
  for (const Bytes& packet : packets) stream.insert(stream.end(), packet.begin(), packet.end());
  for (const size_t chunk : {size_t{1}, size_t{2}, size_t{3}, size_t{7}, stream.size()}) {
    Seen seen(H4Framer::From::kHost);
    for (size_t at = 0; at < stream.size(); at += chunk) {
      seen.framer.Push(ByteView(stream).Sub(at, chunk));
    }
    EXPECT_EQ(seen.packets, packets) << chunk;
  }
  const Bytes two = {0x01, 0x03, 0x0C, 0x00, 0x02, 0x40, 0x00, 0x02, 0x00, 0xAA, 0xBB};
  for (size_t at = 0; at <= two.size(); ++at) {
    Seen seen(H4Framer::From::kHost);
    seen.framer.Push(ByteView(two).Sub(0, at));
    seen.framer.Push(ByteView(two).From(at));
    EXPECT_EQ(seen.packets.size(), 2u) << at;
  }
}

TEST(SimulatorFramer, NoPacketType_OnlyResetBringsBackStep) {
  for (const uint8_t bad : std::initializer_list<uint8_t>{0x00, 0x04, 0x06, 0xFF}) {
    Seen seen(H4Framer::From::kHost);
    seen.framer.Push(Bytes{bad, 0x01, 0x01, 0x18, 0x00, 0x01, 0x03});
    EXPECT_EQ(seen.lost, std::vector<uint8_t>{bad});
    EXPECT_TRUE(seen.packets.empty());
    seen.framer.Push(Bytes{0x0C, 0x00, 0x01, 0x01, 0x18, 0x00});
    EXPECT_EQ(seen.packets,
              (std::vector<Bytes>{{0x01, 0x03, 0x0C, 0x00}, {0x01, 0x01, 0x18, 0x00}}));
    EXPECT_EQ(seen.lost.size(), 1u);
  }
  Seen controller(H4Framer::From::kController);
  controller.framer.Push(Bytes{0x04, 0x0E, 0x00, 0x01});
  EXPECT_EQ(controller.packets.size(), 1u);
  EXPECT_EQ(controller.lost, std::vector<uint8_t>{0x01});
}

TEST(SimulatorFramer, Garbage_NeverYieldsABrokenPacket) {
  std::mt19937 random(7);
  for (int run = 0; run < 200; ++run) {
    Seen seen(H4Framer::From::kHost);
    for (int chunk = 0; chunk < 20; ++chunk) {
      Bytes bytes(random() % 300);
      for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(random() % (chunk % 2 != 0 ? 6 : 256));
      seen.framer.Push(bytes);
    }
    for (const Bytes& packet : seen.packets) {
      const PacketLayout* layout = LayoutOf(packet[0]);
      ASSERT_NE(layout, nullptr);
      const uint64_t length =
          ByteView(packet).Little(1 + layout->length_offset, layout->length_width) &
          layout->length_mask;
      ASSERT_EQ(packet.size(), 1 + layout->header + length);
    }
  }
}

}  // namespace
}  // namespace zvk
