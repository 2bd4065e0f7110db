// A stack that closes from inside a callback while its own initialize still runs.

#include <gtest/gtest.h>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

class NestedClose : public ::testing::TestWithParam<Mode> {};

INSTANTIATE_TEST_SUITE_P(InEachMode, NestedClose,
                         ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

TEST_P(NestedClose, InTheMiddleOfABringUp_IsDoneAtTheEndOfInitialize) {
  TempDir folder;
  // An event for the stack while the downloaded firmware starts.
  WriteFile(folder / "scenario", "power nth 1 300ms inject 04 3E 02 7F 7F\n");
  Handset handset(GetParam(), {"--scenario", folder / "scenario"});
  handset.StartService();
  ChildProcess stack(
      {ProgramDir() + "/../tests/system_test_rogue_stack", "event", "1", "close", "50000"},
      {{"BTHAL_ROOT", handset.root()}});
  ASSERT_TRUE(handset.service().WaitForOutput("BluetoothHci::close() Done", kDeadline))
      << handset.Log();
  const std::string log = handset.Log();
  EXPECT_LT(log.find("BluetoothHci::initialize() completed"), log.find("BluetoothHci::close()"));
  EXPECT_EQ(handset.Ctl({"--no-holder", "cmd", "reset"}).exit_code, 0) << handset.Log();
}

}  // namespace
}  // namespace test
