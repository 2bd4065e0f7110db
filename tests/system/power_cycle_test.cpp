// Bluetooth up and down while the controller does what it should not.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>

#include "support/wait.h"
#include "system/watched_service.h"

namespace test {
namespace {

constexpr int kHandsets = 10;
constexpr int kCyclesAHandset = 10;
// A bring-up with every answer late takes less, and nobody but a stack that waits longer.
constexpr std::chrono::seconds kPatience{10};

template <typename T, size_t N>
const T& AnyOf(const T (&choices)[N], std::mt19937& random) {
  return choices[random() % N];
}

// One step of a scenario that goes wrong in one of the bring-ups.
std::string RandomFault(std::mt19937& random) {
  const auto number = [&](unsigned below) { return std::to_string(random() % below); };
  // What a bring-up sends, and how often in all cycles of a handset.
  const struct {
    const char* opcode;
    unsigned count;
  } commands[] = {{"0x0C03", 20}, {"0xFC79", 20}, {"0xFC18", 20}, {"0xFE72", 10}, {"0xFC2E", 10},
                  {"0xFC4C", 90}, {"0xFC4E", 10}, {"0x0C14", 10}, {"0xFC27", 10}, {"0xFC01", 10}};
  const char* const answers[] = {"no-answer",    "late 1900ms",  "late 2100ms", "lost",
                                 "status 0x0C",  "wrong-opcode", "answer",      "answer 00",
                                 "zero-credits", "truncated",    "twice",       "command-status",
                                 "brown-out"};
  const std::string moments[] = {"hangup",
                                 "silence",
                                 "silence 1500ms",
                                 "stray 0x77",
                                 "truncated-event",
                                 "hardware-error 0x13",
                                 "noise 20",
                                 "coex 0x42",
                                 "coex 0x43",
                                 "brown-out",
                                 "speed 115200",
                                 "speed 3000000",
                                 "split 1 3ms",
                                 "warm-up 400ms",
                                 "crash 0x00 0x10",
                                 "inject 04 0E 00",
                                 "inject 02 01 00 FF FF",
                                 "grant 5",
                                 "soc-dump 3000",
                                 "inject 04 FF 01 58"};
  if (random() % 2 == 0) {
    return "power nth " + std::to_string(1 + random() % kCyclesAHandset) + " " + number(900) +
           "ms " + AnyOf(moments, random) + "\n";
  }
  const auto& command = AnyOf(commands, random);
  const std::string nth = " nth " + std::to_string(1 + random() % command.count) + " ";
  return "on " + std::string(command.opcode) + nth +
         (random() % 3 == 0 ? AnyOf(moments, random) : AnyOf(answers, random)) + "\n";
}

struct Tally {
  std::atomic<int> ready{0};     // the controller answers
  std::atomic<int> reported{0};  // the service ended with a report
  std::atomic<int> waiting{0};   // for the answer to the address, until the stack gave up
  std::atomic<int> lost{0};      // the line, once it was ready
};

// One handset, its faults, and a service that is started again whenever it ends.
class FaultyHandset {
 public:
  FaultyHandset(Mode mode, unsigned seed, Tally& tally)
      : mode_(mode),
        tally_(tally),
        random_(seed),
        scenario_(RandomScenario()),
        watched_(mode, {"--firmware-size", "2000", "--chip", AnyOf(kChips, random_), "--scenario",
                        WriteScenario()}) {}

  void Run() {
    watched_.handset().StartService();
    for (int cycle = 0; cycle < kCyclesAHandset; ++cycle) {
      Cycle(random_() % 3 == 0 ? "die" : "none");
    }
    bool recovered = false;  // its faults come to an end
    for (int tries = 0; tries < 20 && !recovered; ++tries) recovered = Cycle("none");
    EXPECT_TRUE(recovered) << scenario_ << Tail(watched_.handset().Log());
    EXPECT_TRUE(watched_.WaitForReleasedWakeLock())
        << scenario_ << ReadFile(watched_.handset().Path("run/zvksim/status"));
  }

 private:
  static constexpr const char* kChips[] = {"B5", "AE", "AA", "20"};

  std::string RandomScenario() {
    std::string scenario;
    for (int i = 0; i < 8; ++i) scenario += RandomFault(random_);
    return scenario;
  }
  std::string WriteScenario() {
    WriteFile(folder_ / "scenario", scenario_);
    return folder_ / "scenario";
  }

  // Up, some traffic, down: by close, or by the death of the stack. Whether the controller was
  // ready and the service still is there.
  bool Cycle(const std::string& end_by) {
    const std::vector<std::string> command = {ProgramDir() + "/../tests/system_test_rogue_stack",
                                              "main", "40", end_by, "80"};
    ChildProcess stack(command, {{"BTHAL_ROOT", watched_.handset().root()}});
    if (!stack.Wait(kPatience)) GiveUp(stack);
    const auto end = stack.Wait(std::chrono::seconds(60));
    if (!end || end->exit_code == 5) {
      ADD_FAILURE() << "a call into the service does not return\n"
                    << scenario_ << Tail(watched_.handset().Log());
      return false;
    }
    if (end->exit_code == 3) watched_.handset().service().Wait(kDeadline);
    if (!watched_.Runs()) {
      EXPECT_EQ(watched_.WaitForEnd(), "") << scenario_;
      ++tally_.reported;
      watched_.handset().StartService();
      if (mode_ == Mode::kPlain) {  // the other one needs it at once
        EXPECT_TRUE(watched_.WaitForReleasedWakeLock())
            << ReadFile(watched_.handset().Path("run/zvksim/status"));
      }
      before_.clear();
      stacks_died_ = 0;
      return false;
    }
    const bool ready = stack.Output().find("answered") != std::string::npos;
    stacks_died_ += end_by == "die" ? 1 : 0;
    if (ready || end_by == "die") {
      ++tally_.ready;
    } else if (end->exit_code == 0) {
      ++tally_.lost;
    }
    if (ready && end_by != "die") CheckPossessions();
    return ready;
  }

  // A stack waits for the answer to its address as long as it likes, and for nothing else.
  void GiveUp(ChildProcess& stack) {
    const std::string log = watched_.handset().Log();
    const size_t asked = log.rfind("Provision: BDADDR");
    const size_t completed = log.rfind("initialize() completed");
    if (asked == std::string::npos || (completed != std::string::npos && completed > asked)) return;
    stack.Signal(SIGKILL);
    ++tally_.waiting;
  }

  // Compared with the same service when as many devices were open: all of them while the
  // controller is up, none after a fault has closed the transport.
  void CheckPossessions() {
    if (stacks_died_ == 0) return;  // a thread gives notice of deaths, from the first one on
    const WatchedService::Possessions now = watched_.Owns();
    const auto devices =
        std::count_if(now.descriptors.begin(), now.descriptors.end(),
                      [](const std::string& name) { return name.find("/dev/pts/") == 0; });
    EXPECT_LE(devices, 3) << ::testing::PrintToString(now.descriptors);
    const auto [before, first] = before_.try_emplace(devices, now);
    if (!first) {
      EXPECT_EQ(watched_.WaitForNoMoreThan(before->second), "") << scenario_;
    }
  }

  const Mode mode_;
  Tally& tally_;
  std::mt19937 random_;
  const std::string scenario_;
  const TempDir folder_;
  WatchedService watched_;
  std::map<std::ptrdiff_t, WatchedService::Possessions> before_;  // by open devices
  int stacks_died_ = 0;                                           // of this service
};

TEST(PowerCycleSlow, AgainstRandomFaults_EndsReadyOrWithAReportAndLeavesNothing) {
  const unsigned seed = NewSeed();
#ifdef BTHAL_SANITIZED  // where each takes several times as long
  constexpr int kCycles = 150;
#else
  constexpr int kCycles = 500;
#endif
  const int cycles = Count("power cycles", kCycles);
  const int handsets = (cycles + kCyclesAHandset - 1) / kCyclesAHandset;
  Tally tally;
  std::atomic<int> next{0};
  OnEach(std::min(kHandsets, handsets), [&](int) {
    for (int i = next++; i < handsets; i = next++) {
      const unsigned own_seed = seed + static_cast<unsigned>(i);
      SCOPED_TRACE("handset of seed " + std::to_string(own_seed));
      FaultyHandset(i % 2 == 0 ? Mode::kAccelerated : Mode::kPlain, own_seed, tally).Run();
    }
  });
  printf("%d ready, %d reported, %d waited for the address, %d lost the line\n", tally.ready.load(),
         tally.reported.load(), tally.waiting.load(), tally.lost.load());
  EXPECT_GT(tally.ready, 0);
  EXPECT_GT(tally.reported, 0);
}

}  // namespace
}  // namespace test
