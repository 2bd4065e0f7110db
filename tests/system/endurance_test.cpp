// Bluetooth on and off again and again, while the controller does what it should not.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <random>

#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"
#include "system/parallel.h"

namespace test {
namespace {

using std::chrono::milliseconds;

constexpr int kClosedWell = 0, kServiceDied = 3;
// Longer than a bring-up in which every answer is late.
constexpr std::chrono::seconds kPatience{10};

std::string Number(std::mt19937& random, unsigned below) {
  return std::to_string(random() % below);
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

struct Tally {
  std::atomic<int> ready{0};    // cycles in which the controller answered
  std::atomic<int> ended{0};    // ends of the service
  std::atomic<int> waiting{0};  // stacks that gave up waiting for the device address
};

// One handset, and a service that is started again whenever it ends.
class Endurance {
 public:
  Endurance(Mode mode, const std::string& scenario, const char* chip, Tally& tally)
      : scenario_(scenario),
        tally_(tally),
        watched_(scenario, mode, {"--firmware-size", "2000", "--chip", chip}) {
    watched_.StartService();
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

  // Once the faults are used up, a stack is served, and nothing is left behind.
  void Recover() {
    bool recovered = false;
    for (int tries = 0; tries < 20 && !recovered; ++tries) recovered = Cycle(false);
    EXPECT_TRUE(recovered) << scenario_ << Tail(watched_.Log());
    EXPECT_EQ(watched_.WaitForRest(), "") << scenario_;
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
    ++tally_.ended;
    watched_.StartService();
    return false;
  }

  // The one answer that is waited for without a limit.
  bool WaitsForTheAddress() {
    const std::string log = watched_.Log();
    const size_t asked = log.rfind("Provision: BDADDR");
    const size_t completed = log.rfind("initialize() completed");
    return asked != std::string::npos && (completed == std::string::npos || completed < asked);
  }

  const std::string scenario_;
  Tally& tally_;
  Handset watched_;
};

TEST(EnduranceSlow, ControllersThatFail_EndReadyOrWithAReportAndLeaveNothing) {
  const int handsets = Count("handsets with faults, 6 power cycles each", 16);
  const unsigned seed = NewSeed();
  Tally tally;
  InParallel<int>(static_cast<size_t>(handsets), [&](size_t i) {
    SCOPED_TRACE("handset of seed " + std::to_string(seed + i));
    std::mt19937 random(seed + static_cast<unsigned>(i));
    const char* const chips[] = {"B5", "AE", "AA", "20"};
    try {
      Endurance run(i % 2 == 0 ? Mode::kAccelerated : Mode::kPlain, RandomFaults(random),
                    chips[random() % 4], tally);
      for (int cycle = 0; cycle < 6; ++cycle) run.Cycle(random() % 3 == 0);
      run.Recover();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
    return 0;
  });
  printf("%d times ready, the service ended %d times, %d stacks waited for the address\n",
         tally.ready.load(), tally.ended.load(), tally.waiting.load());
  EXPECT_GT(tally.ready, 0);
  if (handsets >= 16) {  // of one alone, the service may well never end
    EXPECT_GT(tally.ended, 0);
  }
}

}  // namespace
}  // namespace test
