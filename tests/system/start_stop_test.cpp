// Bluetooth on and off from every thread at every moment.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "support/wait.h"
#include "system/stall_meter.h"
#include "system/watched_service.h"

namespace test {
namespace {

using std::chrono::milliseconds;

constexpr int kClosed = 0;
constexpr int kServiceDied = 3;
constexpr int kHandsetsAtOnce = 10;
constexpr int kRoundsBetweenCounts = 8;

// A stack that does as it should.
const std::vector<std::string> kHonest = {"main", "0", "none", "30"};

std::vector<std::string> StackCommand(const std::vector<std::string>& plan) {
  std::vector<std::string> command = {ProgramDir() + "/../tests/system_test_rogue_stack"};
  command.insert(command.end(), plan.begin(), plan.end());
  return command;
}

// The chip is reset by its other half at random moments of some bring-ups, and on a cue.
std::string BigHammers(std::mt19937& random) {
  std::string scenario = "on 0x0C25 coex 0x42\n";
  for (int power_on = 3; power_on < 400; power_on += 1 + static_cast<int>(random() % 20)) {
    scenario += "power nth " + std::to_string(power_on) + " " + std::to_string(random() % 900) +
                "ms coex " + (random() % 2 == 0 ? "0x42" : "0x43") + "\n";
  }
  return scenario;
}

std::vector<std::string> RandomPlan(std::mt19937& random) {
  const std::string traffic_ms = std::to_string(random() % 120);
  const char* const places[] = {"init", "event", "acl", "sco", "iso"};
  const std::string place = places[random() % std::size(places)];
  const std::string nth = place == "init" ? "1" : std::to_string(1 + random() % 20);
  switch (random() % 8) {
    case 0:
    case 1:
    case 2:
      return {place, nth, "close", traffic_ms};
    case 3:
    case 4:
      return {place, nth, "die", traffic_ms};
    case 5:
      return {"main", std::to_string(random() % 30000), "die-in-close", traffic_ms};
    case 6:
      return random() % 4 == 0 ? std::vector<std::string>{"main", "5", "cue", "500"} : kHonest;
    default:
      return {"main", std::to_string(random() % 100), "close", traffic_ms};
  }
}

class StartStop {
 public:
  StartStop(Mode mode, unsigned seed, StallMeter& stalls)
      : stalls_(stalls),
        random_(seed),
        watched_(mode, {"--firmware-size", "2000", "--scenario", WriteScenario()}),
        environment_{{"BTHAL_ROOT", watched_.handset().root()}} {}

  void Run(int rounds) {
    StartService();
    for (int round = 0; round < rounds && !::testing::Test::HasFatalFailure(); ++round) {
      Disturb();
      if (!watched_.Runs()) {
        CheckEnd();
        StartService();
      } else if (round % kRoundsBetweenCounts == kRoundsBetweenCounts - 1) {
        Attach();
        if (watched_.Runs()) CheckPossessions();
      }
    }
    Attach();
    EXPECT_TRUE(watched_.WaitForReleasedWakeLock())
        << ReadFile(watched_.handset().Path("run/zvksim/status"));
  }
  int ends() const { return ends_; }

 private:
  std::string WriteScenario() {
    WriteFile(folder_ / "scenario", BigHammers(random_));
    return folder_ / "scenario";
  }

  void StartService() {
    watched_.handset().StartService();
    before_.reset();
    signalled_ = false;
  }

  // A stack or two, one of them with a plan, and now and then a signal.
  void Disturb() {
    ChildProcess stack(StackCommand(RandomPlan(random_)), environment_);
    std::optional<ChildProcess> second;
    if (random_() % 3 == 0) {
      stack.Wait(milliseconds(random_() % 300));
      second.emplace(StackCommand(RandomPlan(random_)), environment_);
    }
    if (random_() % 8 == 0) {
      stack.Wait(milliseconds(random_() % 1000));
      watched_.handset().service().Signal(SIGTERM);
      signalled_ = true;
    } else if (random_() % 4 == 0) {
      stack.Wait(milliseconds(random_() % 1000));
      stack.Signal(SIGKILL);
    }
    ExpectEnd(stack);
    if (second) ExpectEnd(*second);
  }

  // Until an honest stack has come and gone.
  void Attach() {
    for (int tries = 0; tries < 5; ++tries) {
      ChildProcess stack(StackCommand(kHonest), environment_);
      ExpectEnd(stack);
      if (watched_.Runs()) {
        if (stack.Wait(milliseconds(0))->exit_code == kClosed) return;
      } else {
        CheckEnd();
        StartService();
      }
    }
    ADD_FAILURE() << "no stack can attach\n" << Tail(watched_.handset().Log());
  }

  // A stack ends by its plan or because the service died.
  void ExpectEnd(ChildProcess& stack) {
    const auto end = stack.Wait(std::chrono::minutes(2));
    ASSERT_TRUE(end && (end->signal == SIGKILL || end->exit_code == kClosed ||
                        end->exit_code == kServiceDied))
        << "a call into the service does not return: exit " << (end ? end->exit_code : -1) << "\n"
        << Tail(watched_.handset().Log());
    if (end->exit_code == kServiceDied) watched_.handset().service().Wait(kDeadline);
  }

  void CheckEnd() {
    ++ends_;
    const std::string wrong = watched_.WaitForEnd();
    const auto now = StallMeter::Clock::now();
    const bool stalled = stalls_.Longest(now - std::chrono::seconds(5), now) >= kStall;
    EXPECT_EQ(wrong, "");
    const std::string log = watched_.handset().Log();
    const bool timed_out = log.find(" Result 0x03") != std::string::npos;
    EXPECT_TRUE(signalled_ || log.find("resetBtCallback called") != std::string::npos ||
                (stalled && timed_out))
        << "nothing asked the service to end\n"
        << Tail(log);
  }

  void CheckPossessions() {
    if (!before_) {
      before_ = watched_.Owns();
      return;
    }
    EXPECT_EQ(watched_.WaitForNoMoreThan(*before_), "");
  }

  StallMeter& stalls_;
  std::mt19937 random_;
  const TempDir folder_;
  WatchedService watched_;
  const std::map<std::string, std::string> environment_;
  std::optional<WatchedService::Possessions> before_;
  bool signalled_ = false;  // this service, with SIGTERM
  int ends_ = 0;
};

TEST(StartStopSlow, AnyThreadAtAnyMoment_NothingHangsAndNothingIsLeft) {
  const unsigned seed = NewSeed();
  const int rounds = Count("rounds of starting and stopping", 1000);
  StallMeter stalls;
  std::atomic<int> ends{0};
  OnEach(kHandsetsAtOnce, [&](int index) {
    StartStop run(index % 2 == 0 ? Mode::kAccelerated : Mode::kPlain,
                  seed + static_cast<unsigned>(index), stalls);
    run.Run((rounds + kHandsetsAtOnce - 1) / kHandsetsAtOnce);
    ends += run.ends();
  });
  printf("the service ended %d times\n", ends.load());
}

}  // namespace
}  // namespace test
