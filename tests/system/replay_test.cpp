// Captures that become controllers: what the service captured is replayed to it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"
#include "tools/wire/capture_packets.h"

namespace test {
namespace {

using ::testing::HasSubstr;

// The packets, in hex, with their directions.
std::vector<std::string> PacketsOf(const std::string& file) {
  std::vector<std::string> packets;
  for (const wire::CapturedPacket& packet : wire::ReadCapture(file)) {
    packets.push_back((packet.from_controller ? "< " : "> ") +
                      std::to_string(static_cast<int>(packet.packet.type)) + " " +
                      ToHex(packet.packet.bytes));
  }
  return packets;
}

// Starts the service and captures the bring-up, with so many packets, in a format.
void CaptureBringUp(const Handset& handset, const std::string& format, size_t count,
                    const std::string& file) {
  const CtlResult result =
      handset.Ctl({"capture", "--bring-up", "-n", std::to_string(count), "-f", format, "-o", file});
  ASSERT_EQ(result.exit_code, 0) << result.output;
}

class Replay : public ::testing::Test {
 protected:
  // A bring-up in each format.
  void SetUp() override {
    Handset handset("", Mode::kAccelerated);
    handset.StartService();
    ASSERT_TRUE(handset.service().WaitForOutput("controller is ready", kDeadline));
    // Set Sleep Mode is the last command.
    std::vector<TraceLine> trace;
    ASSERT_TRUE(WaitFor([&] {
      trace = handset.Trace();
      return std::any_of(trace.begin(), trace.end(), [](const TraceLine& line) {
        return line.text == "event 0e 04 01 27 fc 00";
      });
    })) << handset.Log();
    count_ = static_cast<size_t>(std::count_if(
        trace.begin(), trace.end(), [](const TraceLine& line) { return line.direction != '-'; }));
    for (const char* format : {"pcapng", "btsnoop", "monitor"}) {
      ASSERT_NO_FATAL_FAILURE(CaptureBringUp(handset, format, count_, File(format)));
    }
    packets_ = PacketsOf(File("pcapng"));
    ASSERT_EQ(packets_.size(), count_);
  }
  std::string File(const std::string& format) const { return folder_ / format; }

  const TempDir folder_;
  size_t count_ = 0;
  std::vector<std::string> packets_;
};

TEST_F(Replay, OfABringUp_IsTheSameBringUp) {
  for (const char* format : {"pcapng", "btsnoop", "monitor"}) {
    SCOPED_TRACE(format);
    Handset handset(Mode::kAccelerated, {"--replay", File(format)});
    handset.StartService();
    ASSERT_TRUE(handset.service().WaitForOutput("controller is ready", kDeadline))
        << handset.simulator().Output() << Tail(handset.Log());
    EXPECT_TRUE(handset.simulator().WaitForOutput(
        "replayed " + File(format) + ": " + std::to_string(count_) + " packets\n", kDeadline));
    const std::string again = folder_ / "again";
    ASSERT_NO_FATAL_FAILURE(CaptureBringUp(handset, format, count_, again));
    EXPECT_TRUE(PacketsOf(again) == packets_);
    handset.KillService();
    handset.simulator().Signal(SIGTERM);
    const auto end = handset.simulator().Wait(kDeadline);
    EXPECT_TRUE(end && end->exit_code == 0) << handset.simulator().Output();
  }
}

// Another firmware than the one of the capture: the service is told by the end of its line.
TEST_F(Replay, ToAHostThatSendsSomethingElse_EndsForBoth) {
  Handset handset(Mode::kAccelerated, {"--replay", File("pcapng")});
  const std::string patch = handset.Path("vendor/firmware/tovu/ZVK_B5.hcd");
  std::string firmware = ReadFile(patch);
  firmware[300] ^= 1;  // in the second record
  WriteFile(patch, firmware);
  handset.StartService();
  const auto end = handset.simulator().Wait(kDeadline);
  EXPECT_TRUE(end && end->exit_code == 1);
  const std::string said = handset.simulator().Output();
  EXPECT_THAT(said, HasSubstr("did not come\nzvksim: wanted command 4c fc "));
  EXPECT_THAT(said, HasSubstr("zvksim: got    command 4c fc "));
  EXPECT_THAT(said, HasSubstr(" was wanted\n"));
  EXPECT_EQ(handset.WaitForEnd(), "");
}

}  // namespace
}  // namespace test
