// A co-processor between service and controller that dies, refuses requests or sends broken
// messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "support/wait.h"
#include "system/handset.h"
#include "system/parallel.h"

namespace test {
namespace {

using ::testing::HasSubstr;

constexpr char kGone[] = "Handle Qvr Connection Event Error";
constexpr char kLost[] = "event FF 04 58 05 00 D6\n";  // what the stack is told of the same

TEST(CoProcessor, ThatFails_EndsTheServiceWithItsReportOrTheStackIsTold) {
  const struct {
    const char* scenario;
    int signal;          // 0: the service lives
    const char* reason;  // in the crash information file, if there is one
    std::string stack;   // what a stack prints, in plain mode; empty: accelerated, without a stack
  } rows[] = {
      {"at 0s co-absent\n", SIGABRT, "Qvr Transport Prepare Failed", ""},
      {"request power nth 2 status 5\n", SIGKILL, "", ""},
      {"request power nth 2 no-answer\n", SIGKILL, "", ""},
      {"request packet nth 3 co-disconnect\n", SIGABRT, kGone, ""},
      {"after 0xFC27 nth 1 500ms co-absent\n", SIGABRT, kGone, ""},
      {"after 0xFC27 nth 1 500ms co-garbage 100\n", SIGABRT, kGone, ""},
      // The stack is told of the error first, then of its attachment, which stands.
      {"request power nth 2 status 5\n", 0, "", "complete 2\ncomplete 0\ninitialize done\n"},
      {"request packet nth 3 co-disconnect\n", SIGABRT, kGone,
       kLost + std::string("initialize failed\n")},
      {"after 0xFC01 nth 1 500ms co-disconnect\n", SIGABRT, kGone,
       std::string("complete 0\ninitialize done\n") + kLost},
  };
  InParallel<int>(std::size(rows), [&](size_t i) {
    const auto& row = rows[i];
    SCOPED_TRACE(row.scenario);
    Handset handset(row.scenario, row.stack.empty() ? Mode::kAccelerated : Mode::kPlain,
                    {"--co-processor", "--firmware-size", "2000"});
    handset.StartService();
    if (!row.stack.empty()) {
      const auto stack = handset.StartStack();
      EXPECT_TRUE(stack->WaitForOutput(row.stack, kDeadline)) << stack->Output() << handset.Log();
    }
    if (row.signal == 0) {
      EXPECT_FALSE(handset.service().Wait(std::chrono::milliseconds(0))) << handset.Log();
      EXPECT_THAT(handset.Log(), HasSubstr("send err 0, resp err 5"));
      return 0;
    }
    const auto end = handset.service().Wait(kDeadline);
    EXPECT_TRUE(end && end->signal == row.signal) << handset.Log();
    std::string reports;
    for (const std::string& text : ContentsOf(handset.Path("data/vendor/ssrdump"))) reports += text;
    EXPECT_THAT(reports, HasSubstr(row.reason));
    return 0;
  });
}

}  // namespace
}  // namespace test
