// Bluetooth on and off again and again, while stacks or the controller do what they should not.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "support/pty.h"
#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"
#include "system/parallel.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using Plan = std::vector<std::string>;

constexpr int kClosedWell = 0, kServiceDied = 3;
constexpr int kHandsets = 8;
// Longer than a bring-up in which every answer is late.
constexpr std::chrono::seconds kPatience{10};

// A stack that does as it should.
const Plan kHonest = {"main", "0", "none", "30"};

std::string Number(std::mt19937& random, unsigned below) {
  return std::to_string(random() % below);
}

Plan RandomPlan(std::mt19937& random) {
  const std::string traffic_ms = Number(random, 120);
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
      return {"main", Number(random, 30000), "die-in-close", traffic_ms};
    case 6:
      return random() % 4 == 0 ? Plan{"main", "5", "cue", "500"} : kHonest;
    default:
      return {"main", Number(random, 100), "close", traffic_ms};
  }
}

// Reset notices at random moments of some bring-ups, and when a stack sends Read Voice Setting.
std::string BigHammers(std::mt19937& random) {
  std::string scenario = "on 0x0C25 coex 0x42\n";
  for (int power_on = 3; power_on < 400; power_on += 1 + static_cast<int>(random() % 20)) {
    scenario += "power nth " + std::to_string(power_on) + " " + Number(random, 900) + "ms coex " +
                (random() % 2 == 0 ? "0x42" : "0x43") + "\n";
  }
  return scenario;
}

// Random faults of tests/data/random_faults.txt in the first bring-ups.
std::string RandomFaults(std::mt19937& random) {
  static const std::vector<Vector> choices = LoadVectors("random_faults.txt");
  const auto any = [&](const std::string& name) {
    const auto row = std::find_if(choices.begin(), choices.end(),
                                  [&](const Vector& choice) { return choice.name == name; });
    return row->fields.at(random() % row->fields.size());
  };
  std::string scenario;
  for (int i = 0; i < 8; ++i) {
    if (random() % 2 == 0) {
      scenario += "power nth " + std::to_string(1 + random() % 8) + " " + Number(random, 900) +
                  "ms " + any("moment") + "\n";
    } else {
      scenario += "on " + any("command") + " nth " + std::to_string(1 + random() % 10) + " " +
                  any(random() % 3 == 0 ? "moment" : "answer") + "\n";
    }
  }
  return scenario;
}

// The longest time in which a byte did not come through a pseudo-terminal of this process. The
// kernel carries them on threads of its own, which a busy machine may hold up for seconds.
class LineWatch {
 public:
  LineWatch() : thread_([this] { Run(); }) {}
  ~LineWatch() {
    ended_ = true;
    thread_.join();
  }
  milliseconds longest() const { return milliseconds(longest_ms_); }

 private:
  void Run() {
    Pty pty;
    while (!ended_) {
      const auto sent = std::chrono::steady_clock::now();
      pty.WriteToHost({0});
      WaitFor([&] { return pty.Unread() != 0; });
      const auto took = std::chrono::steady_clock::now() - sent;
      pty.DropUnread();
      longest_ms_ = std::max<int64_t>(longest_ms_, took / milliseconds(1));
    }
  }

  std::atomic<bool> ended_{false};
  std::atomic<int64_t> longest_ms_{0};
  std::thread thread_;
};

struct Tally {
  std::atomic<int> ready{0};      // cycles in which the controller answered
  std::atomic<int> ended{0};      // ends of the service
  std::atomic<int> waiting{0};    // stacks that gave up waiting for the device address
  std::atomic<int> timed_out{0};  // ends of the service that nothing asked for
};

// One handset, and a service that is started again whenever it ends.
class Endurance {
 public:
  enum class Controller { kGood, kFaulty };

  Endurance(Mode mode, Controller controller, const std::string& scenario, const char* chip,
            std::mt19937& random, Tally& tally)
      : controller_(controller),
        scenario_(scenario),
        random_(random),
        tally_(tally),
        watched_(scenario, mode, {"--firmware-size", "2000", "--chip", chip}) {
    watched_.StartService();
  }

  // A stack or two with random plans, and now and then a signal.
  void DisturbByStacks() {
    auto stack = watched_.StartStack(RandomPlan(random_));
    std::unique_ptr<ChildProcess> second;
    if (random_() % 3 == 0) {
      stack->Wait(milliseconds(random_() % 300));
      second = watched_.StartStack(RandomPlan(random_));
    }
    if (random_() % 8 == 0) {
      stack->Wait(milliseconds(random_() % 1000));
      watched_.service().Signal(SIGTERM);
      signalled_ = true;
    } else if (random_() % 4 == 0) {
      stack->Wait(milliseconds(random_() % 1000));
      stack->Signal(SIGKILL);
    }
    WaitForEndOf(*stack);
    if (second) WaitForEndOf(*second);
    CheckService();
  }

  // Up, some traffic, down: by close, or by the death of the stack. Returns whether the controller
  // answered and the service still runs.
  bool Cycle(bool die) {
    auto stack = watched_.StartStack({"main", "25", die ? "die" : "none", "50"});
    if (!stack->Wait(kPatience) && WaitsForTheAddress()) {
      stack->Signal(SIGKILL);
      ++tally_.waiting;
    }
    WaitForEndOf(*stack);
    if (!CheckService()) return false;
    const bool ready = stack->Output().find("answered") != std::string::npos;
    if (ready) ++tally_.ready;
    return ready;
  }

  void ExpectRest() { EXPECT_EQ(watched_.WaitForRest(), "") << scenario_; }

  // Once the faults are used up, a stack is served, and nothing is left behind.
  void Recover() {
    bool recovered = false;
    for (int tries = 0; tries < 20 && !recovered; ++tries) recovered = Cycle(false);
    EXPECT_TRUE(recovered) << scenario_ << Tail(watched_.Log());
    ExpectRest();
    EXPECT_TRUE(WaitFor([&] { return CountOf("\"held\": true", watched_.Status()) == 0; }))
        << scenario_ << watched_.Status();
  }

 private:
  // A stack must end by its plan or because the service died.
  void WaitForEndOf(ChildProcess& stack) {
    const auto end = stack.Wait(std::chrono::minutes(2));
    EXPECT_TRUE(end && (end->signal == SIGKILL || end->exit_code == kClosedWell ||
                        end->exit_code == kServiceDied))
        << "a call into the service does not return\n"
        << scenario_ << Tail(watched_.Log());
    if (end && end->exit_code == kServiceDied) watched_.service().Wait(milliseconds(2000));
  }

  // Returns whether the service still runs; checks its end and starts another one if not.
  bool CheckService() {
    if (!watched_.service().Wait(milliseconds(0))) return true;
    EXPECT_EQ(watched_.WaitForEnd(), "") << scenario_;
    const std::string log = watched_.Log();
    if (controller_ == Controller::kGood && !signalled_ &&
        CountOf("resetBtCallback called", log) == 0) {
      printf("nothing asked the service to end\n%s\n%s\n", Tail(log).c_str(),
             Tail(ReadFile(watched_.Path("trace"))).c_str());
      EXPECT_GT(CountOf(" Result 0x03", log), 0u);
      ++tally_.timed_out;
    }
    ++tally_.ended;
    watched_.StartService();
    signalled_ = false;
    return false;
  }

  // The one answer that is waited for without a limit.
  bool WaitsForTheAddress() {
    const std::string log = watched_.Log();
    const size_t asked = log.rfind("Provision: BDADDR");
    const size_t completed = log.rfind("initialize() completed");
    return asked != std::string::npos && (completed == std::string::npos || completed < asked);
  }

  const Controller controller_;
  const std::string scenario_;
  std::mt19937& random_;
  Tally& tally_;
  Handset watched_;
  bool signalled_ = false;  // this service, with SIGTERM
};

// Runs play for each handset, several at a time, each with its own seed.
Tally& PlayOnEach(int handsets, const std::function<void(Mode, std::mt19937&, Tally&)>& play) {
  static Tally tally;
  const unsigned seed = NewSeed();
  InParallel<int>(static_cast<size_t>(handsets), [&](size_t i) {
    SCOPED_TRACE("handset of seed " + std::to_string(seed + i));
    std::mt19937 random(seed + static_cast<unsigned>(i));
    try {
      play(i % 2 == 0 ? Mode::kAccelerated : Mode::kPlain, random, tally);
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
    return 0;
  });
  printf("%d times ready, the service ended %d times, %d stacks waited for the address\n",
         tally.ready.load(), tally.ended.load(), tally.waiting.load());
  return tally;
}

TEST(EnduranceSlow, StacksThatMisbehave_NothingHangsAndNothingIsLeft) {
  const int rounds = Count("rounds of misbehaving stacks", 96) / kHandsets;
  const LineWatch line;
  const Tally& tally = PlayOnEach(kHandsets, [&](Mode mode, std::mt19937& random, Tally& all) {
    Endurance run(mode, Endurance::Controller::kGood, BigHammers(random), "B5", random, all);
    for (int round = 1; round <= rounds; ++round) {
      run.DisturbByStacks();
      if (round % 4 == 0) run.ExpectRest();
    }
    run.Recover();
  });
  // A power switch that is so late drops the reset which the bring-up sends 0.6 s after it.
  constexpr milliseconds kHarmless{500};
  if (line.longest() < kHarmless) {
    EXPECT_EQ(tally.timed_out, 0) << "a line stood still for " << line.longest().count() << " ms";
  } else {
    printf("%d answers too late, as lines stood still for up to %d ms\n", tally.timed_out.load(),
           static_cast<int>(line.longest().count()));
  }
}

TEST(EnduranceSlow, ControllersThatFail_EndReadyOrWithAReportAndLeaveNothing) {
  const int handsets = Count("handsets with faults, 6 power cycles each", 16);
  const Tally& tally = PlayOnEach(handsets, [](Mode mode, std::mt19937& random, Tally& all) {
    const char* const chips[] = {"B5", "AE", "AA", "20"};
    Endurance run(mode, Endurance::Controller::kFaulty, RandomFaults(random), chips[random() % 4],
                  random, all);
    for (int cycle = 0; cycle < 6; ++cycle) run.Cycle(random() % 3 == 0);
    run.Recover();
  });
  EXPECT_GT(tally.ready, 0);
  if (handsets >= 16) {  // of one alone, the service may well never end
    EXPECT_GT(tally.ended, 0);
  }
}

}  // namespace
}  // namespace test
