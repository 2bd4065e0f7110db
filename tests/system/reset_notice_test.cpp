// The WLAN driver has reset the chip: what the service does about it, as the handset, the stack and
// the log see it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "support/wait.h"
#include "system/handset.h"
#include "system/handset_trace.h"

namespace test {
namespace {

constexpr double kDelay = 0.3;  // seconds

// Parameter: whether the notice wants an acknowledgement.
class ResetNotice : public ::testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(Of, ResetNotice, ::testing::Bool(), [](const auto& notice) {
  return notice.param ? "ToBeAcknowledged" : "JustSo";
});

// Where each of texts stands in all, one behind the other; else the test has failed.
std::vector<size_t> PositionsInOrder(const std::string& all,
                                     const std::vector<std::string>& texts) {
  std::vector<size_t> positions;
  size_t at = 0;
  for (const std::string& text : texts) {
    at = all.find(text, at);
    if (at == std::string::npos) throw std::runtime_error("not in its place: " + text);
    positions.push_back(at);
    at += text.size();
  }
  return positions;
}

// The seconds of the minute at which the log's line at a position was written.
double SecondsAt(const std::string& log, size_t position) {
  const size_t line = log.rfind('\n', position) + 1;
  return std::stod(log.substr(log.find(':', log.find(':', line) + 1) + 1));
}

// When the handset saw something; fails the test if it did not.
double TimeOf(const std::string& text, const std::vector<TraceLine>& trace) {
  for (const TraceLine& line : trace) {
    if (line.direction == '-' && line.text == text) return line.seconds;
  }
  throw std::runtime_error("the handset has not seen: " + text);
}

TEST_P(ResetNotice, ClosesTellsTheStackAndEndsTheServiceInOrder) {
  const bool acknowledged = GetParam();
  const std::string event = acknowledged ? "43" : "42";
  TempDir folder;
  WriteFile(folder / "scenario", "after 0xFC01 nth 1 500ms coex 0x" + event + "\n");
  Handset handset(Mode::kPlain, {"--scenario", folder / "scenario", "--trace", folder / "trace"});
  WriteFile(handset.Path("vendor/etc/bluetooth/bt_vendor_overlay.conf"),
            "BigHammerBtRegOnDelay = 300\n");
  handset.StartService();
  ChildProcess stack({StackProgram()}, {{"BTHAL_ROOT", handset.root()}});

  const std::optional<ChildResult> end = handset.service().Wait(kDeadline);
  const std::string log = handset.Log();
  ASSERT_TRUE(end) << log;
  EXPECT_EQ(end->signal, SIGKILL);
  stack.WaitForOutput("event", kDeadline);
  EXPECT_EQ(stack.Output(), "complete 0\ninitialize done\nevent FF 04 58 05 00 7F\n");

  // The chip loses its power, the driver waits for that, then it has its answer.
  std::vector<TraceLine> trace;
  WaitFor([&] {
    trace = ReadTrace(folder / "trace");
    return !acknowledged || trace.back().text == "wbrc acknowledged";
  });
  const double noticed = TimeOf("wbrc sends 01 01 01 " + event, trace);
  const double powered_off = TimeOf("power off", trace);
  EXPECT_LT(noticed, powered_off);
  if (acknowledged) {
    EXPECT_GE(TimeOf("wbrc acknowledged", trace) - powered_off, kDelay - 0.01);
  } else {
    EXPECT_THROW(TimeOf("wbrc acknowledged", trace), std::runtime_error);
  }

  std::vector<std::string> lines = {
      "ReadEvent Read wlbt driver event: 0x" + event,
      "resetBtCallback called",
      "closeHci: hci_handle_ = nullptr",
      "ReadEvent Sleep : 300 ms",
  };
  if (acknowledged) lines.insert(lines.end(), {"BtSend msg: 0x81", "WriteEvent"});
  lines.insert(lines.end(), {"DeviceClose", "ClosePollThread: close socket fds_1",
                             "ClosePollThread: close socket fds_0", "DeviceClose: close(coex_fd_:",
                             "root inflamed event with reason: Soc Big Hammer Error (127)"});
  const std::vector<size_t> at = PositionsInOrder(log, lines);
  const double slept = SecondsAt(log, at[4]) - SecondsAt(log, at[3]);
  EXPECT_GE(slept < 0 ? slept + 60 : slept, kDelay - 0.01);
  EXPECT_EQ(CountOf("BtSend msg: 0x81", log), acknowledged ? 1u : 0u);
  // Nobody here is to blame.
  EXPECT_TRUE(std::filesystem::is_empty(handset.Path("data/vendor/ssrdump/coredump")));
  EXPECT_TRUE(std::filesystem::is_empty(handset.Path("data/tombstones")));
}

}  // namespace
}  // namespace test
