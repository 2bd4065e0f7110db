// Stacks that die, or close at an unexpected moment.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <random>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using std::chrono::milliseconds;

class StackDeath : public ::testing::TestWithParam<Mode> {};

INSTANTIATE_TEST_SUITE_P(InEachMode, StackDeath,
                         ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

TEST_P(StackDeath, AtAnyMoment_NextStackAttachesAtOnceAndNothingGrows) {
  Handset watched(GetParam());
  watched.StartService();
  ASSERT_EQ(watched.Ctl({"--no-holder", "cmd", "reset"}).exit_code, 0) << watched.Log();
  const bool stays_on = GetParam() == Mode::kAccelerated;
  ASSERT_TRUE(watched.WaitForStatus(stays_on ? "\"powered\": true" : "\"powered\": false"));
  const pid_t service = watched.service().pid();
  constexpr int kLate = 3;  // what is made when it is needed first, and stays
  const int threads = CountThreads(service) + kLate;
  const int descriptors = CountDescriptors(service) + kLate;
  std::mt19937 random(NewSeed());
  const int kills = Count("kills of the stack", 8);
  for (int i = 0; i < kills; ++i) {
    // Anywhere from its start, through bring-up (0.7 s), into the traffic.
    auto stack = watched.StartStack({"main", "0", "none", "60000"});
    stack->Wait(milliseconds(random() % 900));
    stack->Signal(SIGKILL);
    ASSERT_TRUE(stack->Wait(kDeadline));
    const CtlResult next = watched.Ctl({"--no-holder", "cmd", "reset"});
    ASSERT_EQ(next.exit_code, 0) << next.output << watched.Log();
  }
  EXPECT_TRUE(WaitFor([&] { return CountThreads(service) <= threads; })) << watched.Log();
  EXPECT_TRUE(WaitFor([&] { return CountDescriptors(service) <= descriptors; })) << watched.Log();
}

// A stack that has closed is no longer watched, also when another one died before it: its death
// does not close the next one.
TEST_P(StackDeath, AfterItsClose_DoesNotConcernTheNextStack) {
  Handset watched(GetParam());
  watched.StartService();
  auto dead = watched.StartStack();
  ASSERT_TRUE(dead->WaitForOutput("initialize done", kDeadline)) << watched.Log();
  dead->Signal(SIGKILL);
  ASSERT_EQ(watched.Ctl({"--no-holder", "cmd", "reset"}).exit_code, 0) << watched.Log();
  const auto closed = watched.StartStack({"close"});
  ASSERT_TRUE(closed->WaitForOutput("close done", kDeadline)) << watched.Log();
  EXPECT_LE(CountOf("Skipping unlink call, service died.", watched.Log()), 1u) << watched.Log();
  ASSERT_EQ(watched.Ctl({"up", "--detach"}).exit_code, 0) << watched.Log();
  const std::string before = watched.Log();
  closed->Signal(SIGKILL);
  const auto deaths = [&] { return CountOf("serviceDied", watched.Log()); };
  EXPECT_FALSE(
      WaitFor([&] { return deaths() > CountOf("serviceDied", before); }, milliseconds(300)))
      << watched.Log();
  EXPECT_EQ(watched.Ctl({"cmd", "read_bd_addr"}).exit_code, 0) << watched.Log();
  EXPECT_EQ(CountOf("BluetoothHci::close() Done", watched.Log()),
            CountOf("BluetoothHci::close() Done", before));
}

// An event for the stack comes while the downloaded firmware starts; the stack closes inside it.
TEST_P(StackDeath, CloseInsideItsOwnInitialize_IsDoneAtTheEndOfThat) {
  if (UsesCoProcessor()) GTEST_SKIP() << "an event is injected into the line";
  Handset watched("power nth 1 300ms inject 04 3E 02 7F 7F\n", GetParam());
  watched.StartService();
  const auto stack = watched.StartStack({"event", "1", "close", "50000"});
  ASSERT_TRUE(watched.service().WaitForOutput("BluetoothHci::close() Done", kDeadline))
      << watched.Log();
  const std::string log = watched.Log();
  EXPECT_LT(log.find("BluetoothHci::initialize() completed"), log.find("BluetoothHci::close()"));
  EXPECT_EQ(watched.Ctl({"--no-holder", "cmd", "reset"}).exit_code, 0) << watched.Log();
}

}  // namespace
}  // namespace test
