// Captures that the simulator replays, as tests/data/replays.txt lists them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "sim/host.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kApart(300);

Bytes Big(uint64_t value, size_t width) {
  Bytes bytes;
  for (size_t i = width; i > 0; --i) bytes.push_back(static_cast<uint8_t>(value >> 8 * (i - 1)));
  return bytes;
}

// Writes a btsnoop file with H4 packets and returns the option that replays it.
std::string Replay(const TempDir& folder, const std::string& packets) {
  Bytes file = B("62 74 73 6E 6F 6F 70 00 00 00 00 01 00 00 03 EA");
  uint64_t time_us = 0x00E2E7D7274FA240;
  for (size_t at = packets.find_first_of("<>"); at != std::string::npos;) {
    const size_t next = packets.find_first_of("<>", at + 1);
    const Bytes packet =
        B(packets.substr(at + 1, next == std::string::npos ? next : next - at - 1));
    file = file + Big(packet.size(), 4) + Big(packet.size(), 4) +
           Big(packets[at] == '<' ? 1 : 0, 4) + Big(0, 4) + Big(time_us, 8) + packet;
    time_us += std::chrono::microseconds(kApart).count();
    at = next;
  }
  WriteFile(folder / "capture", std::string(file.begin(), file.end()));
  return folder / "capture";
}

class SimulatorReplay : public testing::TestWithParam<Vector> {};

TEST_P(SimulatorReplay, GoesAsListed) {
  const std::vector<std::string>& row = GetParam().fields;
  const TempDir folder;
  std::vector<std::string> options = SplitTrimmed(row.at(0), ' ');
  options.insert(options.end(), {"--replay", Replay(folder, row.at(1))});
  Host host(options);
  host.PowerUp();
  host.Send(B(row.at(2)));
  EXPECT_EQ(ToHex(host.Receive(B(row.at(3)).size())), ToHex(B(row.at(3))));
  const std::string said = *ParseText(row.at(5));
  if (row.at(4) == "0") {
    EXPECT_TRUE(host.zvksim().WaitForOutput(said, kDeadline)) << host.zvksim().Output();
  } else {
    EXPECT_EQ(ToHex(host.Receive(1, milliseconds(100))), "") << "nothing behind a mismatch";
  }
  host.zvksim().Signal(SIGTERM);
  const auto end = host.zvksim().Wait(kDeadline);
  EXPECT_TRUE(end && end->exit_code == std::stoi(row.at(4)));
  EXPECT_THAT(host.zvksim().Output(), testing::HasSubstr(said));
}

INSTANTIATE_TEST_SUITE_P(Of, SimulatorReplay, testing::ValuesIn(LoadVectors("replays.txt")),
                         [](const auto& row) { return row.param.name; });

TEST(SimulatorReplayTiming, WithIt_NothingComesEarlierThanCaptured) {
  const TempDir folder;
  Host host({"--replay-timing", "--replay",
             Replay(folder, "> 01 03 0C 00 < 04 0E 04 01 03 0C 00 < 04 10 01 42 > 01 14 0C 00")});
  host.PowerUp();
  const auto start = steady_clock::now();
  host.Send(B("01 03 0C 00"));
  EXPECT_EQ(host.Next(), B("04 0E 04 01 03 0C 00"));
  EXPECT_GE(steady_clock::now() - start, kApart);
  host.Send(B("01 14 0C 00"));  // before its time: what comes before it in the capture is sent
  EXPECT_EQ(host.Next(), B("04 10 01 42"));
  EXPECT_TRUE(host.zvksim().WaitForOutput(": 4 packets\n", kDeadline));
}

}  // namespace
}  // namespace test
