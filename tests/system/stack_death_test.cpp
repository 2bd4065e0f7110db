// The stack dies, or stops.

#include <gtest/gtest.h>
#include <signal.h>

#include <random>

#include "support/wait.h"
#include "system/watched_service.h"

namespace test {
namespace {

class StackDeathSlow : public ::testing::TestWithParam<Mode> {
 protected:
  WatchedService watched_{GetParam()};
  Handset& handset_ = watched_.handset();
};

INSTANTIATE_TEST_SUITE_P(InEachMode, StackDeathSlow,
                         ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

TEST_P(StackDeathSlow, KilledAtAnyMoment_NextStackAttachesAndNothingGrows) {
  handset_.StartService();
  // At once, and with all that belongs to it.
  const auto next_stack_attaches = [&] {
    return handset_.Ctl({"up", "--detach"}).exit_code == 0 && WaitFor([&] {
             return handset_.Ctl({"inject", "read_bd_addr"}).exit_code == 0;
           }) &&
           handset_.Ctl({"down"}).exit_code == 0;
  };
  const auto kill_a_stack = [&](unsigned after_ms) {
    ChildProcess stack(handset_.CtlCommand({"--no-holder", "scan", "-t", "60"}));
    stack.Wait(std::chrono::milliseconds(after_ms));
    stack.Signal(SIGKILL);
    ASSERT_TRUE(stack.Wait(kDeadline));
    ASSERT_TRUE(next_stack_attaches()) << handset_.Log();
  };
  // Once, for what is made at first use.
  kill_a_stack(900);
  const WatchedService::Possessions before = watched_.Owns();

  std::mt19937 random(NewSeed());
  const int kills = Count("kills of the stack", 40);
  // Anywhere from its start, through bring-up (0.7 s), into the scan.
  for (int i = 0; i < kills && !HasFatalFailure(); ++i)
    kill_a_stack(static_cast<unsigned>(random() % 900));
  EXPECT_EQ(watched_.WaitForNoMoreThan(before), "");
}

TEST_P(StackDeathSlow, StoppedStack_LosesItsConnectionAndTheNextIsServed) {
  handset_.StartService();
  ASSERT_EQ(handset_.Ctl({"up", "--detach"}).exit_code, 0) << handset_.Log();
  const std::string status = handset_.Ctl({"status", "--json"}).output;
  const size_t at = status.find("\"pid\": ", status.find("\"holder\""));
  ASSERT_NE(at, std::string::npos) << status;
  const pid_t stack = std::stoi(status.substr(at + 7));
  ChildProcess scan(handset_.CtlCommand({"scan", "-t", "600"}));
  ChildProcess monitor(handset_.CtlCommand({"monitor"}));
  ASSERT_TRUE(monitor.WaitForOutput("LE Advertising Report", kDeadline)) << monitor.Output();

  kill(stack, SIGSTOP);  // events keep coming, and it answers none
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(WaitFor(
      [&] {
        return handset_.Ctl({"--no-holder", "cmd", "reset"}).exit_code == 0;
      },
      std::chrono::seconds(40)))
      << handset_.Log();
  EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8))
      << "an answer may take 10 s";
  kill(stack, SIGKILL);
}

}  // namespace
}  // namespace test
