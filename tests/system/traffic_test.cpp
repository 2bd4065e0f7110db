// Data through the whole line and back: client, service, serial line, controller.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::HasSubstr;

// In accelerated mode only: data take the same way in both.
TEST(Traffic, OfEachKind_ComesBackWholeAndInOrder) {
  const std::string bytes = std::to_string(Count("bytes of mixed packets", 2'000'000));
  const struct {
    std::vector<std::string> simulator;
    std::vector<std::string> loopback;
  } rows[] = {
      {{}, {"--bytes", bytes}},
      {{}, {"--pattern", "control", "--bytes", "300k"}},  // 0A 0D 11 13 FF
      {{"--chunk", "1"}, {"--bytes", "300k"}},            // a byte at a time from the controller
      {{}, {"--size", "1", "--bytes", "3k"}},
  };
  for (const auto& row : rows) {
    Handset handset(Mode::kAccelerated, row.simulator);
    handset.StartService();
    std::vector<std::string> command = {"loopback"};
    command.insert(command.end(), row.loopback.begin(), row.loopback.end());
    const CtlResult result = handset.Ctl(command);
    EXPECT_EQ(result.exit_code, 0) << result.output << handset.Log().substr(0, 20000);
    EXPECT_THAT(result.output, HasSubstr("nothing lost, nothing reordered"));
  }
}

}  // namespace
}  // namespace test
