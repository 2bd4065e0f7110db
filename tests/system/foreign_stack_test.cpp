// A host stack of other authors works on top of the service.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::HasSubstr;

TEST(ForeignStack, OnTheH4Port_ScansConnectsReadsWritesAndIsNotified) {
  const char* skip = std::getenv("BTHAL_NO_NODE");
  if (skip != nullptr && std::string(skip) == "1") GTEST_SKIP() << "BTHAL_NO_NODE=1";
  Handset handset(Mode::kPlain);
  handset.StartService();
  const std::string port = handset.Path("h4");
  ChildProcess server(handset.CtlCommand({"serve-h4", "--unix", port}));
  ASSERT_TRUE(server.WaitForOutput("ready unix:" + port, kDeadline))
      << server.Output() << handset.Log();
  // Twice: the second host finds what the first left behind.
  for (int run = 1; run <= 2; ++run) {
    // The stack keeps a file of its bonds where it is started.
    const std::string command = "cd " + handset.root() +
                                " && NODE_PATH=" FOREIGN_STACK_DIR
                                "/node_modules exec node " FOREIGN_STACK_DIR "/stack.js " +
                                port;
    std::string output;
    const ChildResult result =
        test::Run({"sh", "-c", command}, &output, {}, std::chrono::minutes(2));
    EXPECT_EQ(result.exit_code, 0) << "run " << run << ": " << output << server.Output();
    for (const char* step : {"reset", "heard 5A:56:4B:AD:00:04", "connected", "read", "written",
                             "notified of", "disconnected"}) {
      EXPECT_THAT(output, HasSubstr(step));
    }
  }
}

}  // namespace
}  // namespace test
