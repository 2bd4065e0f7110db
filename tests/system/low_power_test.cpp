// The controller's sleep as the handset sees it: its times, the wake lock, and that no byte is
// lost.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <utility>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;

constexpr char kWakeLock[] = "bthal_wakelock";
#ifdef BTHAL_SANITIZED
constexpr double kTolerance = 0.3;  // seconds; everything is slow, not only what is tested
#else
constexpr double kTolerance = 0.15;  // a busy machine stands still for so long
#endif

struct Interval {
  double begin;
  double end;
};

// The intervals in which something is on; a gap shorter than the tolerance does not divide one.
class Stretches {
 public:
  void Set(bool on, double now) {
    if (on && !on_ && (intervals_.empty() || now > intervals_.back().end + kTolerance)) {
      intervals_.push_back({now, now});
    }
    if (on || on_) intervals_.back().end = now;
    on_ = on;
  }
  const std::vector<Interval>& intervals() const { return intervals_; }

 private:
  bool on_ = false;
  std::vector<Interval> intervals_;
};

class LowPowerSlow : public ::testing::TestWithParam<Mode> {
 protected:
  // Sends Read Voice Setting, which nothing else sends, and waits for the controller's sleep.
  void CueAndSleep(const std::vector<int>& pauses_ms) {
    for (const int pause_ms : pauses_ms) {
      std::this_thread::sleep_for(milliseconds(pause_ms));
      ASSERT_EQ(handset_.Ctl({"cmd", "0x0C25"}).exit_code, 0) << handset_.Log();
      ++cues_;
    }
    ASSERT_TRUE(WaitFor([&] { return Sleeps(); }))
        << Tail(ReadFile(handset_.Path("trace"))) << Tail(handset_.Log());
    std::this_thread::sleep_for(milliseconds(250));  // so long that two awake periods stay apart
  }
  // Whether it was put to sleep after the last cue.
  bool Sleeps() const {
    bool asleep = false;
    int cues = 0;
    for (const TraceLine& line : handset_.Trace()) {
      if (line.text == "command 25 0c 00") ++cues;
      if (line.text == "wake asserted" || line.text == "command 25 0c 00") asleep = false;
      if (line.text == "wake released") asleep = true;
    }
    return asleep && cues == cues_;
  }
  Handset handset_{"", GetParam()};
  int cues_ = 0;
};

INSTANTIATE_TEST_SUITE_P(InEachMode, LowPowerSlow,
                         ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

TEST_P(LowPowerSlow, WakeLockIsHeldExactlyWhileBringUpRunsOrTheControllerIsAwake) {
  handset_.StartService();
  ASSERT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
  ASSERT_NO_FATAL_FAILURE(CueAndSleep({}));
  ASSERT_NO_FATAL_FAILURE(CueAndSleep({0, 300, 700}));  // a stream
  // Lone transmissions: a second one for a machine that stands still during the first.
  ASSERT_NO_FATAL_FAILURE(CueAndSleep({0}));
  ASSERT_NO_FATAL_FAILURE(CueAndSleep({0}));
  // Accelerated: the controller stays up, and is put to sleep; plain: power off.
  ASSERT_EQ(handset_.Ctl({"cmd", "0x0C25"}).exit_code, 0);
  ASSERT_EQ(handset_.Ctl({"down"}).exit_code, 0);
  EXPECT_TRUE(handset_.WaitForStatus(std::string(kWakeLock) + "\": {\n\"held\": false"))
      << handset_.Status();

  const std::string lock = std::string("wake lock ") + kWakeLock;
  Stretches held, needed;
  bool powered_anew = false, bring_up = false, awake = false;
  double asserted = 0, cue = 0;
  std::vector<double> after_wake, after_cue;  // from the last cue before a sleep, to the sleep
  for (const TraceLine& line : handset_.Trace()) {
    const double now = line.seconds;
    if (line.text == lock + " held") held.Set(true, now);
    if (line.text == lock + " released") held.Set(false, now);
    if (line.text == "power on") powered_anew = true;
    if (line.direction == '>' && std::exchange(powered_anew, false)) bring_up = true;
    // Set Sleep Mode is the last step of a bring-up.
    if (line.direction == '<' && line.text.find("event 0e 04 01 27 fc") == 0) bring_up = false;
    if (line.text == "wake asserted") awake = true;
    if (line.text == "wake asserted") asserted = now;
    if (line.text == "wake released" || line.text == "low-power driver off") awake = false;
    if (line.text == "command 25 0c 00") cue = now;
    if (line.text == "wake released" && cue > asserted) {
      after_wake.push_back(now - asserted);
      after_cue.push_back(now - cue);
    }
    needed.Set(bring_up || awake, now);
  }
  ASSERT_GE(needed.intervals().size(), 4u);
  ASSERT_EQ(held.intervals().size(), needed.intervals().size());
  for (size_t i = 0; i < needed.intervals().size(); ++i) {
    EXPECT_NEAR(held.intervals()[i].begin, needed.intervals()[i].begin, kTolerance) << i;
    EXPECT_NEAR(held.intervals()[i].end, needed.intervals()[i].end, kTolerance) << i;
  }
  // One period of 0.8 s at least after the last packet of a stream, two after a lone one; not
  // three.
  ASSERT_GE(after_cue.size(), 3u);
  EXPECT_GE(after_cue[0], 0.8 - kTolerance);
  EXPECT_GE(std::min(after_wake[1], after_wake[2]), 1.6 - kTolerance);
  EXPECT_LT(std::min(after_wake[1], after_wake[2]), 2.4) << Tail(ReadFile(handset_.Path("trace")));
}

// With gaps of every length, half of them near the moments at which the controller is put to sleep.
TEST_P(LowPowerSlow, RandomTraffic_LosesNoByteToSleep) {
  std::mt19937 random(NewSeed());
  const int packets = Count("packets at random moments", 12);
  handset_.StartService();
  ASSERT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
  for (int i = 0; i < packets; ++i) {
    const CtlResult result =
        handset_.Ctl({"loopback", "--bytes", std::to_string(1 + random() % 600)});
    ASSERT_EQ(result.exit_code, 0) << result.output << Tail(handset_.Log());
    const int near[] = {760 + static_cast<int>(random() % 60),
                        1550 + static_cast<int>(random() % 80), static_cast<int>(random() % 2500),
                        static_cast<int>(random() % 50)};
    std::this_thread::sleep_for(milliseconds(near[random() % 4]));  // the traffic's own
  }
  EXPECT_TRUE(
      WaitFor([&] { return CountOf("- wake released", ReadFile(handset_.Path("trace"))) > 0; }));
  EXPECT_THAT(handset_.Status(), HasSubstr("\"bytes_lost_asleep\": 0,"));
}

}  // namespace
}  // namespace test
