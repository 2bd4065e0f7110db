// Every byte that the host writes from the first HCI Reset to a ready controller.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <deque>

#include "support/wait.h"
#include "system/board.h"
#include "system/parallel.h"
#include "system/stall_meter.h"

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

std::string Lines(const std::vector<WireStep>& steps) {
  std::string lines;
  for (const WireStep& step : steps) lines += Line(step.speed, step.packet) + "\n";
  return lines;
}

// A board on which everything that the host writes is noted, and answered as steps say.
class NotingBoard : public Board {
 public:
  NotingBoard(Mode mode, const WireVector& vector, const std::vector<WireStep>& steps)
      : Board(mode, vector), expected_(steps.begin(), steps.end()) {
    Play([this, &vector](const Bytes& command) -> Bytes {
      run_.lines += Line(pty().Speed(), Concat({0x01}, command)) + "\n";
      WireStep step;
      if (!expected_.empty()) {
        step = expected_.front();
        expected_.pop_front();
      }
      if (!step.awaited) return {};  // a controller in fast download does not complete records
      // Long enough for a host that does not wait to give itself away.
      pollfd more{pty().master(), POLLIN, 0};
      if (poll(&more, 1, 20) != 0) run_.unasked += "after " + ToHex(command) + "\n";
      return Completion(vector, command, step.status);
    });
    StartService();
  }

  WireRun Finish() {
    const Bytes unfinished = StopPlaying();
    const Bytes rest = Concat(unfinished, pty().TakeWritten());
    if (!rest.empty()) run_.lines += "and " + ToHex(rest) + "\n";
    run_.stack = StackOutput();
    run_.log = Log();
    return run_;
  }

 private:
  std::deque<WireStep> expected_;
  WireRun run_;  // the controller's until it stops
};

WireRun BringUp(const WireVector& vector) {
  NotingBoard board(Mode::kPlain, vector, vector.steps);
  board.StartStack();
  board.stack()->WaitForOutput("initialize ", kDeadline);
  return board.Finish();
}

TEST(BringUpWire, IsWhatTheFormatsSay) {
  const std::vector<WireVector> vectors = LoadWireVectors().bring_ups;
  StallMeter meter;
  const auto runs = InParallel<WireRun>(vectors.size(), [&](size_t i) {
    return WithoutStalls<WireRun>(meter, [&] { return BringUp(vectors[i]); });
  });
  for (size_t i = 0; i < vectors.size(); ++i) {
    SCOPED_TRACE(vectors[i].name);
    EXPECT_EQ(runs[i].lines, Lines(vectors[i].steps)) << runs[i].log;
    EXPECT_EQ(runs[i].unasked, "");
    EXPECT_EQ(runs[i].stack, "complete 0\ninitialize done\n");
  }
}

// The controller comes up before any stack, and stays up between two.
TEST(BringUpWire, OfAcceleratedBluetooth_IsABringUpAndAResetForEachComingAndGoing) {
  const WireVectors vectors = LoadWireVectors();
  const WireVector& vector = vectors.bring_ups.front();
  std::vector<WireStep> steps = vector.steps;
  ASSERT_EQ(steps.back().name, "write_address");
  steps.pop_back();  // a stack's
  for (int stack = 0; stack < 2; ++stack) {
    steps.insert(steps.end(), vectors.attach.begin(), vectors.attach.end());
    steps.insert(steps.end(), vectors.close.begin(), vectors.close.end());
  }
  NotingBoard board(Mode::kAccelerated, vector, steps);
  ASSERT_TRUE(board.service().WaitForOutput("BTZVK controller is ready", kDeadline));
  for (int stack = 0; stack < 2; ++stack) {
    board.StartStack({"close"});
    EXPECT_TRUE(board.stack()->WaitForOutput("close done", kDeadline)) << board.Log();
  }
  const WireRun run = board.Finish();
  EXPECT_EQ(run.lines, Lines(steps)) << run.log;
  EXPECT_EQ(run.unasked, "");
  EXPECT_EQ(run.stack, "complete 0\ninitialize done\nclose done\n");
}

}  // namespace
}  // namespace test
