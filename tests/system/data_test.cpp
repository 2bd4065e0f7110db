// Data through the whole line and back: client, service, serial line, controller.
// Mode of all: accelerated; bring-up does not change the road of data.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::HasSubstr;

class Data : public ::testing::Test {
 protected:
  void Loop(Handset& handset, const std::vector<std::string>& options) {
    handset.StartService();
    std::vector<std::string> command = {"loopback"};
    command.insert(command.end(), options.begin(), options.end());
    const CtlResult result = handset.Ctl(command, std::chrono::minutes(5));
    EXPECT_EQ(result.exit_code, 0) << result.output << handset.Log().substr(0, 20000);
    EXPECT_THAT(result.output, HasSubstr("nothing lost, nothing reordered"));
  }
};

TEST_F(Data, MixedPackets_ComeBackWholeAndInOrder) {
  Handset handset(Mode::kAccelerated);
  const int bytes = Count("bytes of mixed packets", 10'000'000);
  Loop(handset, {"--bytes", std::to_string(bytes)});
  EXPECT_THAT(handset.Ctl({"status"}).output,
              HasSubstr(OnCoProcessor() ? "transport  co-processor, connected"
                                        : "transport  serial line /dev/ttySAC16, open"))
      << "the log does not reach back to the opening any more";
}

TEST_F(Data, PayloadsOfTerminalControlBytes_ComeBackWholeAndInOrder) {
  Handset handset(Mode::kAccelerated);
  const int bytes = Count("bytes of 0A 0D 11 13 FF", 2'000'000);
  Loop(handset, {"--pattern", "control", "--bytes", std::to_string(bytes)});
}

TEST_F(Data, OneBytePackets_ComeBackWholeAndInOrder) {
  Handset handset(Mode::kAccelerated);
  const int packets = Count("packets of one byte", 20'000);
  Loop(handset, {"--size", "1", "--bytes", std::to_string(packets)});
}

TEST_F(Data, ThroughTheHolderAndOverAConnection_ComesBackWholeAndInOrder) {
  Handset handset(Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach"}).exit_code, 0) << handset.Log();
  const int bytes = Count("bytes over the loop peer", 300'000);
  const CtlResult echo = handset.Ctl({"echo", "ZVK Loop", "--bytes", std::to_string(bytes)});
  EXPECT_EQ(echo.exit_code, 0) << echo.output;
  const CtlResult name = handset.Ctl({"read-name", "5A:56:4B:AD:00:04"});
  EXPECT_THAT(name.output, HasSubstr("is called \"ZVK GATT\""));
}

}  // namespace
}  // namespace test
