// Packets that arrive a byte at a time from both ends: a host that writes single bytes to the H4
// port, and a controller whose serial line delivers single bytes.

#include <gtest/gtest.h>

#include "sim/controller/buffers.h"
#include "support/wait.h"
#include "system/h4_link.h"
#include "system/handset.h"
#include "tools/hci/packet.h"
#include "tools/link/transfer.h"

namespace test {
namespace {

namespace opcode = bthalctl::opcode;
using bthalctl::PacketType;
using bthalctl::Stream;

// The handles of the simulator's local loopback; ISO data is returned on any other one.
const std::vector<Stream> kLoopbackStreams = {
    {PacketType::kAcl, 0x0001, zvk::kAclBytes, zvk::kAclBuffers, true},
    {PacketType::kSco, 0x0002, zvk::kScoBytes, zvk::kScoBuffers, false},
    {PacketType::kIso, 0x0E00, zvk::kIsoBytes, zvk::kIsoBuffers, true}};

class OneByteWrites : public ::testing::TestWithParam<bthalctl::Pattern> {};

INSTANTIATE_TEST_SUITE_P(Of, OneByteWrites,
                         ::testing::Values(bthalctl::Pattern::kRandom, bthalctl::Pattern::kControl),
                         [](const auto& pattern) {
                           return pattern.param == bthalctl::Pattern::kRandom ? "AnyBytes"
                                                                              : "TerminalBytes";
                         });

TEST_P(OneByteWrites, FromBothEnds_MixedPacketsComeBackWholeAndInOrder) {
  Handset handset(Mode::kAccelerated, {"--chunk", "1"});
  handset.StartService();
  H4Link link(handset, H4Link::Writes::kSingleBytes);
  bthalctl::Exchange exchange(link);
  exchange.Demand(opcode::kReset);
  exchange.Demand(opcode::kWriteLoopbackMode, {1});
  bthalctl::TransferOptions options;
  options.bytes = static_cast<uint64_t>(Count("bytes, one a write from both ends", 10'000'000));
  options.pattern = GetParam();
  const bthalctl::TransferResult result =
      bthalctl::Transfer(exchange, kLoopbackStreams, options, [](uint64_t) {});
  uint64_t back = 0;
  for (const auto& stream : result.streams) {
    EXPECT_GT(stream.packets, 0u);
    back += stream.bytes;
  }
  EXPECT_GE(back, options.bytes);
  printf("%llu bytes in %.1f s\n", static_cast<unsigned long long>(back), result.seconds);
}

}  // namespace
}  // namespace test
