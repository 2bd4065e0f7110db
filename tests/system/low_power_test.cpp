// When the controller sleeps, as the handset sees it, and that nothing is lost by it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>
#include <utility>

#include "support/vectors.h"
#include "support/wait.h"
#include "system/h4_link.h"
#include "system/handset.h"
#include "system/handset_trace.h"
#include "system/watched_service.h"
#include "tools/hci/packet.h"
#include "tools/link/exchange.h"

namespace test {
namespace {

using ::testing::HasSubstr;
namespace opcode = bthalctl::opcode;
using std::chrono::milliseconds;

constexpr char kWakeLock[] = "bthal_wakelock";
constexpr double kMachine = 0.15;  // seconds that the machine may take for itself
constexpr milliseconds kTolerance{50};
constexpr uint16_t kCue = 0x0C25;  // Read Voice Setting: nothing else sends it

// A handset that keeps a trace, with Bluetooth up and the test as its stack.
class SleepyHandset {
 public:
  explicit SleepyHandset(Mode mode) : handset_(mode, {"--trace", trace_file()}) {
    handset_.StartService();
    link_.emplace(handset_);
    exchange_.emplace(*link_);
  }

  Handset& handset() { return handset_; }
  bthalctl::Exchange& exchange() { return *exchange_; }
  void Cue() {
    exchange_->Demand(kCue);
    ++cues_;
  }
  void Close() {
    exchange_.reset();
    link_.reset();
  }
  std::string trace_file() const { return trace_folder_ / "trace"; }
  std::vector<TraceLine> Trace() const { return ReadTrace(trace_file()); }
  std::string Status() const { return ReadFile(handset_.Path("run/zvksim/status")); }
  bool Asleep() const { return Status().find("\"awake\": false") != std::string::npos; }
  bool WaitUntilAsleep() const {
    return WaitFor([this] { return Asleep(); });
  }
  // When the controller was put to sleep after the last cue, as seconds since that cue and since
  // the wake line was asserted for it. Waits for it.
  struct Sleep {
    double after_cue = 0;
    double after_wake = 0;
  };
  Sleep WaitForSleep() const {
    double cue = 0, asserted = 0, released = 0;
    const auto asleep = [&] {
      int cues = 0;
      for (const TraceLine& line : Trace()) {
        if (line.direction == '>' && line.text == "command 25 0c 00") {
          cue = line.seconds;
          ++cues;
        }
        if (line.text == "wake asserted") asserted = line.seconds;
        if (line.text == "wake released") released = line.seconds;
      }
      return cues == cues_ && released > cue;  // a line may come later than its packet
    };
    if (!WaitFor(asleep)) {
      throw std::runtime_error("the controller is not put to sleep: " + std::to_string(cues_) +
                               " cues, the trace ends with\n" + Tail(ReadFile(trace_file())));
    }
    return {released - cue, released - asserted};
  }

 private:
  const TempDir trace_folder_;
  Handset handset_;
  std::optional<H4Link> link_;
  std::optional<bthalctl::Exchange> exchange_;
  int cues_ = 0;
};

#ifndef BTHAL_SANITIZED  // what is measured is time

// Times of one kind, from threads side by side. On a machine that has too much to do some come
// late: three quarters must be in time, and none as late as the next tick of the timer.
class SleepTimes {
 public:
  SleepTimes(const char* what, double earliest, double latest)
      : what_(what), earliest_(earliest), latest_(latest) {}
  void Add(double seconds) {
    std::lock_guard<std::mutex> guard(lock_);
    times_.push_back(seconds);
  }
  void Check() {
    std::sort(times_.begin(), times_.end());
    ASSERT_GE(times_.size(), 4u);
    const double most = times_[times_.size() * 3 / 4 - 1];
    printf("%s: asleep after %.3f to %.3f s, three quarters after %.3f s\n", what_, times_.front(),
           times_.back(), most);
    EXPECT_GE(times_.front(), earliest_) << what_;
    EXPECT_LE(most, latest_ + kMachine) << what_;
    EXPECT_LT(times_.back(), latest_ + 0.8) << what_;
  }

 private:
  const char* const what_;
  const double earliest_, latest_;
  std::mutex lock_;
  std::vector<double> times_;
};

TEST(SleepTimeSlow, LoneTransmissionAndEndOfAStream_SuspendInTheirTime) {
  const unsigned seed = NewSeed();
  const int rounds = Count("sleeps timed on each of 4 handsets", 4);
  SleepTimes lone("lone", 1.6, 1.6), stream("stream", 0.8 - 0.01, 1.6);
  OnEach(4, [&](int index) {
    SleepyHandset sleepy(index % 2 == 0 ? Mode::kAccelerated : Mode::kPlain);
    std::mt19937 random(seed + static_cast<unsigned>(index));
    ASSERT_TRUE(sleepy.WaitUntilAsleep());
    for (int round = 0; round < rounds; ++round) {
      sleepy.Cue();
      lone.Add(sleepy.WaitForSleep().after_wake);

      const auto end = std::chrono::steady_clock::now() + milliseconds(random() % 2000);
      do {
        sleepy.Cue();
        std::this_thread::sleep_for(milliseconds(random() % 700));  // the stream's pace
      } while (std::chrono::steady_clock::now() < end);
      sleepy.Cue();
      stream.Add(sleepy.WaitForSleep().after_cue);
    }
  });
  lone.Check();
  stream.Check();
}

#endif

// What begins and ends again and again.
class Stretches {
 public:
  void Begin(double now) {
    if (!open_) begin_ = now;
    open_ = true;
  }
  void End(double now) {
    if (open_) intervals_.push_back({begin_, now});
    open_ = false;
  }
  const std::vector<Interval>& intervals() const { return intervals_; }

 private:
  bool open_ = false;
  double begin_ = 0;
  std::vector<Interval> intervals_;
};

// When the wake lock was held in a session, and when bring-up ran or the controller was awake.
struct Holdings {
  std::vector<Interval> held;
  std::vector<Interval> needed;
};

Holdings HoldingsIn(const std::vector<TraceLine>& trace) {
  const std::string lock = std::string("wake lock ") + kWakeLock;
  Stretches held, bring_up, awake;
  bool powered_anew = false;
  for (const TraceLine& line : trace) {
    const double now = line.seconds;
    if (line.text == lock + " held") held.Begin(now);
    if (line.text == lock + " released") held.End(now);
    if (line.text == "power on") powered_anew = true;
    if (line.direction == '>' && std::exchange(powered_anew, false)) bring_up.Begin(now);
    // Set Sleep Mode is the last step of a bring-up.
    if (line.direction == '<' && line.text.find("event 0e 04 01 27 fc") == 0) bring_up.End(now);
    if (line.text == "wake asserted") awake.Begin(now);
    if (line.text == "wake released" || line.text == "low-power driver off") awake.End(now);
  }
  Holdings holdings{held.intervals(), bring_up.intervals()};
  holdings.needed.insert(holdings.needed.end(), awake.intervals().begin(), awake.intervals().end());
  return holdings;
}

class WakeLockSlow : public ::testing::TestWithParam<Mode> {};

INSTANTIATE_TEST_SUITE_P(InEachMode, WakeLockSlow,
                         ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

TEST_P(WakeLockSlow, IsHeldExactlyWhileBringUpRunsOrTheControllerIsAwake) {
  SleepyHandset sleepy(GetParam());
  ASSERT_TRUE(sleepy.WaitUntilAsleep());
  const milliseconds asleep(4 * kTolerance);  // so long that two awake periods stay apart
  std::this_thread::sleep_for(asleep);
  for (const int pause_ms : {0, 300, 0}) {
    sleepy.Cue();
    std::this_thread::sleep_for(milliseconds(pause_ms));
  }
  sleepy.WaitForSleep();
  std::this_thread::sleep_for(asleep);
  sleepy.Cue();
  sleepy.WaitForSleep();
  std::this_thread::sleep_for(asleep);
  sleepy.Cue();
  sleepy.Close();  // accelerated: the controller stays up, and is put to sleep; plain: power off
  EXPECT_TRUE(WaitFor([&] {
    return sleepy.Status().find(std::string(kWakeLock) + "\": {\n\"held\": false") !=
           std::string::npos;
  })) << sleepy.Status();

  const double tolerance = kTolerance.count() * 1e-3;
  const Holdings holdings = HoldingsIn(sleepy.Trace());
  const std::vector<Interval> held = Joined(holdings.held, tolerance);
  const std::vector<Interval> needed = Joined(holdings.needed, tolerance);
  ASSERT_EQ(needed.size(), 4u);
  ASSERT_EQ(held.size(), needed.size());
  for (size_t i = 0; i < needed.size(); ++i) {
    EXPECT_NEAR(held[i].begin, needed[i].begin, tolerance) << i;
    EXPECT_NEAR(held[i].end, needed[i].end, tolerance) << i;
  }
}

// The wake-lock records in a debug report, as numbers: milliseconds awake, packets sent.
struct AwakePeriod {
  int milliseconds;
  int packets;
};
std::vector<AwakePeriod> AwakePeriodsIn(const std::string& report) {
  const std::string header = "start_timestamp, end_timestamp, during, tx_packet_count\n";
  std::istringstream lines(report.substr(report.find(header) + header.size()));
  std::vector<AwakePeriod> periods;
  for (std::string line; std::getline(lines, line) && line.find("====") != 0;) {
    const std::vector<std::string> fields = SplitTrimmed(line, ',');
    if (fields.size() != 4) throw std::runtime_error("no record: " + line);
    periods.push_back({std::stoi(fields[2]), std::stoi(fields[3])});
  }
  return periods;
}

TEST(WakeStatisticsSlow, TwelveSecondsOfTraffic_AreOneRecordAndFiveAreNone) {
  OnEach(2, [](int index) {
    const bool long_enough = index == 0;
    SleepyHandset sleepy(Mode::kAccelerated);
    ASSERT_TRUE(sleepy.WaitUntilAsleep());
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::seconds(long_enough ? 12 : 5);
    int sent = 0;
    for (; std::chrono::steady_clock::now() < end; ++sent) {
      sleepy.Cue();
      std::this_thread::sleep_for(milliseconds(150));  // the traffic's pace
    }
    const auto taken = std::chrono::steady_clock::now() - start;
    sleepy.WaitForSleep();
    // The record is made when the controller is asleep already.
    std::vector<AwakePeriod> periods;
    WaitFor(
        [&] {
          const CtlResult report = sleepy.handset().Ctl({"debug"});
          EXPECT_EQ(report.exit_code, 0) << report.output;
          periods = AwakePeriodsIn(report.output);
          return !periods.empty();
        },
        long_enough ? kDeadline : milliseconds(0));
    ASSERT_EQ(periods.size(), long_enough ? 1u : 0u);
    if (!long_enough) return;
    const double traffic_ms = std::chrono::duration<double, std::milli>(taken).count();
    EXPECT_EQ(periods[0].packets, sent);
    EXPECT_GT(periods[0].milliseconds, 12000);
    EXPECT_LT(periods[0].milliseconds, traffic_ms + 2400);  // two ticks, and the machine
  });
}

// Gaps of every length, most of them near the moments at which the controller is put to sleep.
milliseconds RandomGap(std::mt19937& random) {
  switch (random() % 4) {
    case 0:
      return milliseconds(random() % 50);
    case 1:
      return milliseconds(780 + random() % 40);
    case 2:
      return milliseconds(1570 + random() % 60);
    default:
      return milliseconds(random() % 2500);
  }
}

// A packet or a command that the controller's loopback gives back as it is. What is wrong, or
// empty.
std::string SendAround(bthalctl::Exchange& exchange, std::mt19937& random) {
  if (random() % 2 == 0) {
    exchange.Command(kCue, {}, kDeadline);
    return "";
  }
  const bthalctl::Bytes data(1 + random() % 200, static_cast<uint8_t>(random()));
  const auto packet = bthalctl::DataPacket(bthalctl::PacketType::kAcl, 0x0001, 0, data);
  exchange.link().Send(packet);
  const auto deadline = bthalctl::Clock::now() + kDeadline;
  std::optional<bthalctl::Packet> back;
  do {
    back = exchange.Next(deadline);
  } while (back && back->type != packet.type);
  if (!back) return "a packet did not come back";
  return back->bytes == packet.bytes ? "" : "a packet came back altered";
}

TEST(SleepSlow, RandomTraffic_LosesNoByteToSleep) {
  const unsigned seed = NewSeed();
  const int seconds = Count("seconds of random traffic on each of 4 handsets", 40);
  std::atomic<size_t> all_sleeps{0};
  OnEach(4, [&](int index) {
    SleepyHandset sleepy(index % 2 == 0 ? Mode::kAccelerated : Mode::kPlain);
    std::mt19937 random(seed + static_cast<unsigned>(index));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    sleepy.exchange().Demand(opcode::kReset);
    sleepy.exchange().Demand(opcode::kWriteLoopbackMode, {1});
    int bursts = 0;
    std::string wrong;
    try {
      for (; wrong.empty() && std::chrono::steady_clock::now() < end; ++bursts) {
        for (auto left = 1 + random() % 4; left > 0 && wrong.empty(); --left) {
          wrong = SendAround(sleepy.exchange(), random);
        }
        std::this_thread::sleep_for(RandomGap(random));  // the traffic's own
      }
    } catch (const std::exception& error) {
      wrong = error.what();
    }
    EXPECT_EQ(wrong, "") << Tail(ReadFile(sleepy.trace_file())) << Tail(sleepy.handset().Log());
    size_t sleeps = 0;
    for (const TraceLine& line : sleepy.Trace()) sleeps += line.text == "wake released" ? 1u : 0u;
    EXPECT_THAT(sleepy.Status(), HasSubstr("\"bytes_lost_asleep\": 0,"));
    all_sleeps += sleeps;
    printf("%d bursts, %zu sleeps\n", bursts, sleeps);
  });
  EXPECT_GT(all_sleeps, 0u);
}

}  // namespace
}  // namespace test
