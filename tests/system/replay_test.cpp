// Captures that become controllers: what the service captured is replayed to it.

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

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
  const auto died = handset.service().Wait(kDeadline);
  EXPECT_TRUE(died && died->signal == SIGABRT) << Tail(handset.Log());
}

// How a bring-up went.
struct Outcome {
  std::vector<std::string> commands;  // that the controller got, as its trace shows them
  std::string reason;                 // of the crash
  std::string failed;                 // what the log says about the command that failed
};

// What follows text in its line.
std::string Behind(const std::string& text, const std::string& all) {
  const size_t at = all.find(text);
  return at == std::string::npos ? "" : all.substr(at, all.find('\n', at) - at);
}

// Lets the service fail while it captures on disk. Its crash files wait for a log of the kernel,
// which does not end before the capture is complete.
Outcome Fail(Handset& handset, bool ends) {
  const std::string capture = handset.Path("data/vendor/bluetooth/capture.pcapng");
  const std::string log = handset.Path("dev/logbuffer_btlpm");
  std::filesystem::remove(log);
  EXPECT_EQ(mkfifo(log.c_str(), 0600), 0);
  WriteFile(handset.Path("data/property/persistent.prop"),
            "persist.bluetooth.capture=pcapng:10m:2\n");
  handset.StartService();
  const auto failed = [&] { return ContentsOf(handset.Path("data/vendor/ssrdump")); };
  const auto is_complete = [&] {
    const std::vector<TraceLine> trace = handset.Trace();
    const auto count = std::count_if(trace.begin(), trace.end(),
                                     [](const TraceLine& line) { return line.direction != '-'; });
    try {
      return PacketsOf(capture).size() == static_cast<size_t>(count);
    } catch (const std::runtime_error&) {  // half written
      return false;
    }
  };
  EXPECT_TRUE(WaitFor([&] {
    const android::base::unique_fd writer(open(log.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (writer.ok()) {
      EXPECT_TRUE(WaitFor(is_complete));
    }
    return ends ? handset.service().Wait(std::chrono::milliseconds(0)).has_value()
                : !failed().empty();
  })) << Tail(handset.Log());
  Outcome outcome;
  for (const TraceLine& line : handset.Trace()) {
    if (line.direction == '>') outcome.commands.push_back(line.text);
  }
  if (!failed().empty()) outcome.reason = Behind("crash_reason: ", failed().front());
  outcome.failed = Behind("btzvk_send_command_wait_complete: 0x", handset.Log());
  return outcome;
}

class CapturedFailure : public ::testing::TestWithParam<Vector> {};

TEST_P(CapturedFailure, MadeAScenario_FailsTheSameWay) {
  const std::vector<std::string>& row = GetParam().fields;
  const std::vector<std::string> options = SplitTrimmed(row.at(0), ' ');
  Handset captured(Replaced(row.at(1), ";", "\n"), Mode::kAccelerated, options);
  const bool ends = row.at(3) == "ends";
  const Outcome wanted = Fail(captured, ends);
  EXPECT_EQ(wanted.reason, "crash_reason: " + row.at(2));
  const std::string capture = captured.Path("data/vendor/bluetooth/capture.pcapng");
  const std::string scenario = captured.Path("again");
  const CtlResult made = captured.Ctl({"capture", "--to-scenario", capture, "-o", scenario});
  ASSERT_EQ(made.exit_code, 0) << made.output;
  const std::string text = ReadFile(scenario);

  Handset again(text, Mode::kAccelerated, options);
  const Outcome got = Fail(again, ends);
  EXPECT_EQ(got.reason, wanted.reason) << text;
  EXPECT_EQ(got.failed, wanted.failed) << text;
  EXPECT_TRUE(got.commands == wanted.commands) << text;
}

INSTANTIATE_TEST_SUITE_P(Of, CapturedFailure,
                         ::testing::ValuesIn(LoadVectors("captured_failures.txt")),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace test
