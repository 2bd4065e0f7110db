// A controller that hangs: it neither reads nor sends until it is powered off. Every way out of
// Bluetooth ends all the same, and the next stack is served.

#include <gtest/gtest.h>
#include <signal.h>

#include <utility>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

enum class Way { kStackDies, kStackCloses, kTermination, kResetNotice, kDownload };

struct HungChipCase {
  friend void PrintTo(const HungChipCase& row, std::ostream* out) { *out << row.name; }

  const char* name;
  Mode mode;
  Way way;
  const char* scenario;
  const char* ends_with;  // the log line that tells that the way out has ended
  int signal;             // of the service's end; 0: it lives
};

constexpr char kHang[] = "after 0x1802 100ms hang\n";
constexpr char kHangAndNotice[] = "after 0x1802 100ms hang\nafter 0x1802 800ms coex 0x43\n";
constexpr char kClosed[] = "BluetoothHci::close() Done";

const HungChipCase kCases[] = {
    {"StackDiesPlain", Mode::kPlain, Way::kStackDies, kHang, kClosed, 0},
    {"StackDiesAccelerated", Mode::kAccelerated, Way::kStackDies, kHang,
     "perform_init: BTZVK controller is ready", 0},
    {"StackClosesPlain", Mode::kPlain, Way::kStackCloses, kHang, kClosed, 0},
    {"StackClosesAccelerated", Mode::kAccelerated, Way::kStackCloses, kHang,
     "vendor error code 153", SIGABRT},
    {"TerminationPlain", Mode::kPlain, Way::kTermination, kHang, "bthal.shim: Deinitialize", 0},
    {"ResetNoticePlain", Mode::kPlain, Way::kResetNotice, kHangAndNotice, "BtSend msg: 0x81",
     SIGKILL},
    {"DownloadPlain", Mode::kPlain, Way::kDownload, "after 0xFC2E 60ms hang\n",
     "vendor error code 148", SIGABRT},
};

class HungChip : public ::testing::TestWithParam<HungChipCase> {};

INSTANTIATE_TEST_SUITE_P(When, HungChip, ::testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

TEST_P(HungChip, EveryWayOutEndsAndTheNextStackIsServed) {
  const HungChipCase& row = GetParam();
  Handset handset(row.scenario, row.mode,
                  {"--firmware-size", row.way == Way::kDownload ? "1000000" : "2000"});
  handset.StartService();
  const bool closes = row.way == Way::kStackCloses;
  const auto stack = handset.StartStack({"main", "0", "flood", closes ? "1500" : "40000"});
  size_t before = 0;
  const auto tell = [&] { return CountOf(row.ends_with, handset.Log()); };
  if (row.way != Way::kDownload && row.way != Way::kResetNotice) {
    ASSERT_TRUE(stack->WaitForOutput("ready", kDeadline)) << handset.Log();
    before = tell();
    ASSERT_TRUE(WaitFor([&] { return CountOf("hang", ReadFile(handset.Path("trace"))) > 0; }));
    // The line takes nothing any more once the sender has not come on for a while.
    size_t lines = 0;
    auto since = std::chrono::steady_clock::now();
    ASSERT_TRUE(WaitFor([&] {
      const auto now = std::chrono::steady_clock::now();
      const size_t written = CountOf("retrying remaining", handset.Log());
      if (std::exchange(lines, written) != written) since = now;
      return now - since > std::chrono::milliseconds(300);
    }));
    if (row.way == Way::kStackDies) stack->Signal(SIGKILL);
    if (row.way == Way::kTermination) handset.service().Signal(SIGTERM);
  }
  EXPECT_TRUE(WaitFor([&] { return tell() > before; })) << handset.Log();
  if (row.signal != 0) {
    const std::optional<ChildResult> end = handset.service().Wait(kDeadline);
    ASSERT_TRUE(end) << handset.Log();
    EXPECT_EQ(end->signal, row.signal);
    return;
  }
  stack->Signal(SIGKILL);
  const CtlResult next = handset.Ctl({"--no-holder", "cmd", "reset"});
  EXPECT_EQ(next.exit_code, 0) << next.output << handset.Log();
}

}  // namespace
}  // namespace test
