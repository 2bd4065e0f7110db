// Faults of the controller that a stack can live through.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::HasSubstr;

class Fault : public ::testing::TestWithParam<Mode> {
 protected:
  // A handset whose controller plays a scenario.
  Handset& Play(const std::string& scenario) {
    WriteFile(file_ / "scenario", scenario);
    handset_.emplace(GetParam(), std::vector<std::string>{"--scenario", file_ / "scenario"});
    handset_->StartService();
    return *handset_;
  }
  TempDir file_;
  std::optional<Handset> handset_;
};

INSTANTIATE_TEST_SUITE_P(InEachMode, Fault, ::testing::Values(Mode::kAccelerated, Mode::kPlain),
                         [](const auto& mode) { return ModeName(mode.param); });

TEST_P(Fault, StrayTypeByte_ClosesTheTransportWithoutAReportAndTheNextStackRecovers) {
  // Read Voice Setting serves as the cue: no bring-up sends it.
  Handset& handset = Play("after 0x0C25 nth 1 stray 0x77\n");
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  handset.Ctl({"cmd", "0x0C25"});
  EXPECT_TRUE(
      handset.service().WaitForOutput("Unimplemented Packet Type: 119 detected!", kDeadline))
      << handset.Log();
  // The transport is closed: the stack stays attached and is not answered.
  EXPECT_TRUE(WaitFor([&] {
    return handset.Ctl({"cmd", "read_bd_addr", "--timeout", "0.2"}).exit_code == 1;
  })) << handset.Log();
  EXPECT_THAT(handset.Ctl({"status"}).output,
              HasSubstr("lost: OnDataReady: Unimplemented Packet Type: 119 detected!"));
  const std::filesystem::path dumps = handset.Path("data/vendor/ssrdump/coredump");
  EXPECT_TRUE(std::filesystem::is_empty(dumps)) << "a dump was written";

  ASSERT_EQ(handset.Ctl({"down"}).exit_code, 0) << handset.Log();
  const CtlResult up = handset.Ctl({"up", "--detach"});
  EXPECT_EQ(up.exit_code, 0) << up.output << handset.Log();
  EXPECT_EQ(handset.Ctl({"cmd", "read_bd_addr"}).exit_code, 0) << handset.Log();
}

TEST_P(Fault, SplitAndMergedBytes_ChangeNothing) {
  Handset& handset = Play("power split 1 1ms\n");
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  EXPECT_EQ(handset.Ctl({"read-name", "ZVK GATT"}).exit_code, 0) << handset.Log();
}

}  // namespace
}  // namespace test
