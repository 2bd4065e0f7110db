// Every byte that the host writes from the first HCI Reset to a ready controller.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <deque>

#include "support/wait.h"
#include "system/board.h"
#include "system/parallel.h"

namespace test {
namespace {

using std::chrono::milliseconds;

// One line a packet: speed and bytes.
std::string Line(int speed, const Bytes& packet) {
  return std::to_string(speed) + " bit/s: " + ToHex(packet);
}

struct WireRun {
  std::string lines;
  std::string unasked;  // what the host wrote without waiting for an answer that it must wait for
  std::string stack;
  std::string log;
};

WireRun BringUp(const WireVector& vector) {
  WireRun run;
  Board board(Mode::kPlain, vector);
  std::deque<WireStep> expected(vector.steps.begin(), vector.steps.end());
  board.Play([&](const Bytes& command) -> Bytes {
    run.lines += Line(board.pty().Speed(), Concat({0x01}, command)) + "\n";
    WireStep step;
    if (!expected.empty()) {
      step = expected.front();
      expected.pop_front();
    }
    if (!step.awaited) return {};  // a controller in fast download does not complete records
    // Long enough for a host that does not wait to give itself away.
    pollfd more{board.pty().master(), POLLIN, 0};
    if (poll(&more, 1, 20) != 0) run.unasked += "after " + ToHex(command) + "\n";
    return Completion(vector, command, step.status);
  });
  board.StartService();
  board.StartStack();
  board.stack()->WaitForOutput("initialize ", kDeadline);
  board.service().WaitForOutput("Enable Bluetooth HAL Extensions", kDeadline);
  const Bytes unfinished = board.StopPlaying();
  const Bytes rest = Concat(unfinished, board.pty().TakeWritten());
  if (!rest.empty()) run.lines += "and " + ToHex(rest) + "\n";
  run.stack = board.StackOutput();
  run.log = board.Log();
  return run;
}

TEST(BringUpWire, IsWhatTheFormatsSay) {
  const std::vector<WireVector> vectors = LoadWireVectors();
  const std::vector<WireRun> runs =
      InParallel<WireRun>(vectors.size(), [&](size_t i) { return BringUp(vectors[i]); });
  for (size_t i = 0; i < vectors.size(); ++i) {
    SCOPED_TRACE(vectors[i].name);
    std::string expected;
    for (const WireStep& step : vectors[i].steps) {
      expected += Line(step.speed, step.packet) + "\n";
    }
    EXPECT_EQ(runs[i].lines, expected) << runs[i].log;
    EXPECT_EQ(runs[i].unasked, "");
    EXPECT_EQ(runs[i].stack, "complete 0\ninitialize done\n");
  }
}

}  // namespace
}  // namespace test
