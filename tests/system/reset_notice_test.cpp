// The WLAN driver tells that it has reset the chip: what the handset, the stack and the log see.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

constexpr double kDelay = 0.3;  // seconds

// Parameter: whether the notice wants an acknowledgement.
class ResetNotice : public ::testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(Of, ResetNotice, ::testing::Bool(), [](const auto& notice) {
  return notice.param ? "ToBeAcknowledged" : "JustSo";
});

// When the handset first saw something, in seconds since its start; 0 if it did not.
double TimeOf(const std::string& text, const std::vector<TraceLine>& trace) {
  for (const TraceLine& line : trace) {
    if (line.direction == '-' && line.text == text) return line.seconds;
  }
  return 0;
}

TEST_P(ResetNotice, ClosesTellsTheStackAndEndsTheServiceInOrder) {
  const bool acknowledged = GetParam();
  const std::string event = acknowledged ? "43" : "42";
  Handset handset("after 0xFC01 nth 1 500ms coex 0x" + event + "\n", Mode::kPlain);
  WriteFile(handset.Path("vendor/etc/bluetooth/bt_vendor_overlay.conf"),
            "BigHammerBtRegOnDelay = 300\n");
  handset.StartService();
  const auto stack = handset.StartStack();
  const std::optional<ChildResult> end = handset.service().Wait(kDeadline);
  const std::string log = handset.Log();
  ASSERT_TRUE(end) << log;
  EXPECT_EQ(end->signal, SIGKILL);
  stack->WaitForOutput("event", kDeadline);
  EXPECT_EQ(stack->Output(), "complete 0\ninitialize done\nevent FF 04 58 05 00 7F\n");

  // The chip is switched off first; the driver gets its acknowledgement after the delay.
  std::vector<TraceLine> trace;
  WaitFor([&] {
    trace = handset.Trace();
    return !acknowledged || TimeOf("wbrc acknowledged", trace) > 0;
  });
  const double noticed = TimeOf("wbrc sends 01 01 01 " + event, trace);
  const double powered_off = TimeOf("power off", trace);
  const double answered = TimeOf("wbrc acknowledged", trace);
  EXPECT_GT(noticed, 0);
  EXPECT_LT(noticed, powered_off);
  EXPECT_EQ(answered > 0, acknowledged);
  // From the notice, as the simulator may see the power go late.
  EXPECT_TRUE(!acknowledged || (answered > powered_off && answered - noticed >= kDelay - 0.01));

  std::vector<std::string> lines = {"ReadEvent Read wlbt driver event: 0x" + event,
                                    "resetBtCallback called", "closeHci: hci_handle_ = nullptr",
                                    "ReadEvent Sleep : 300 ms"};
  if (acknowledged) lines.insert(lines.end(), {"BtSend msg: 0x81", "WriteEvent"});
  lines.insert(lines.end(), {"DeviceClose", "ClosePollThread: close socket fds_1",
                             "ClosePollThread: close socket fds_0", "DeviceClose: close(coex_fd_:",
                             "root inflamed event with reason: Soc Big Hammer Error (127)"});
  size_t at = 0;
  for (const std::string& line : lines) {
    at = log.find(line, at);
    ASSERT_NE(at, std::string::npos) << "not in its place: " << line << "\n" << log;
    at += line.size();
  }
  EXPECT_EQ(CountOf("BtSend msg: 0x81", log), acknowledged ? 1u : 0u);
  // A reset by the other side is no crash.
  EXPECT_TRUE(std::filesystem::is_empty(handset.Path("data/vendor/ssrdump/coredump")));
  EXPECT_TRUE(std::filesystem::is_empty(handset.Path("data/tombstones")));
}

}  // namespace
}  // namespace test
