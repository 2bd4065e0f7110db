// The evidence that the service leaves when it ends itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>

#include "support/wait.h"
#include "system/board.h"
#include "system/parallel.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;

constexpr uint16_t kReset = 0x0C03;
constexpr uint16_t kMinidriver = 0xFC2E;
constexpr char kFailed[] = "initialize failed\n";

const WireVector& Plain() {
  static const WireVector vector = LoadWireVectors().bring_ups.front();
  return vector;
}

uint16_t OpcodeOf(const Bytes& command) {
  return static_cast<uint16_t>(command[0] | command[1] << 8);
}

Bytes Healthy(const Bytes& command) { return Completion(Plain(), command); }

struct Ending {
  std::optional<ChildResult> end;
  std::string log;
  std::string stack;
  Board::Evidence evidence;
};

// last_words: what the stack prints when its call fails because the service is gone.
Ending WaitForEnd(Board& board, const std::string& last_words = kFailed) {
  Ending ending;
  ending.end = board.service().Wait(kDeadline);
  if (board.stack() != nullptr) board.stack()->WaitForOutput(last_words, kDeadline);
  ending.log = board.Log();
  ending.stack = board.StackOutput();
  ending.evidence = board.Left();
  return ending;
}

TEST(CrashReport, OfABoardWithAPartMissing_NamesThePart) {
  const struct {
    const char* part;
    const char* instead;  // a file that takes its place; empty: none
    int code;
    const char* reason;
    bool stack;
  } rows[] = {
      {"sys/class/rfkill/rfkill0/state", "", 145, "Unable to open rfkill state", true},
      {"sys/class/rfkill/rfkill0/state", "", 145, "Unable to open rfkill state", false},
      {"sys/class/rfkill/rfkill0/state", "/dev/full", 145, "Cannot write power control data", true},
      {"dev/ttyBT7", "", 144, "Host Open Port Error", true},
      {"dev/ttyBT7", "/dev/null", 144, "Host Open Port Error", false},
      {"proc/device-tree/chosen/config/bt_addr", "", 150, "Can't fetch the provisioning BDA", true},
      // The one code without a message: the look-up of the message ends the process.
      {"dev/wbrc", "", 151, "", true},
  };
  const auto endings = InParallel<Ending>(std::size(rows), [&](size_t i) {
    Board board(rows[i].stack ? Mode::kPlain : Mode::kAccelerated, Plain());
    std::filesystem::remove(board.Path(rows[i].part));
    if (*rows[i].instead != 0) {
      std::filesystem::create_symlink(rows[i].instead, board.Path(rows[i].part));
    }
    board.Play(Healthy);
    board.StartService();
    if (rows[i].stack) board.StartStack();
    return WaitForEnd(board);
  });
  for (size_t i = 0; i < std::size(rows); ++i) {
    const auto& row = rows[i];
    const Ending& ending = endings[i];
    SCOPED_TRACE(std::string(row.part) + (row.stack ? ", stack" : ", no stack"));
    std::string event = RootInflammation(row.code);
    if (row.code == 151) {
      event.clear();
      EXPECT_TRUE(ending.end && ending.end->signal == SIGABRT);
      EXPECT_TRUE(ending.evidence.crash_infos.empty() && ending.evidence.core_dumps.empty());
      EXPECT_EQ(ending.evidence.tombstones.size(), 1u);
      EXPECT_THAT(ending.log, HasSubstr("open_coex_dev: return ret (0), count:10\n"));
    } else {
      ExpectDeath(row.code, row.reason, ending.end, ending.log, ending.evidence);
    }
    EXPECT_EQ(ending.stack, row.stack ? event + kFailed : "");
  }
}

// In accelerated mode the chip keeps running between two stacks; each gets it by a reset.
TEST(CrashReport, OfAnAcceleratedResetThatFails_NamesIt) {
  const struct {
    const char* stack;
    int resets;  // how many are answered
    int code;
    const char* reason;
    const char* output;
  } rows[] = {
      {"attach", 2, 152, "Accelerated Init failed", kFailed},
      {"close", 3, 153, "Accelerated shutdown failed", "close failed\n"},
  };
  const auto endings = InParallel<Ending>(std::size(rows), [&](size_t i) {
    Board board(Mode::kAccelerated, Plain());
    board.Play([left = rows[i].resets](const Bytes& command) mutable {
      return OpcodeOf(command) == kReset && left-- <= 0 ? Bytes{} : Healthy(command);
    });
    board.StartService();
    board.service().WaitForOutput("BTZVK controller is ready", kDeadline);
    board.StartStack({rows[i].stack});
    return WaitForEnd(board, rows[i].output);
  });
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].stack);
    ExpectDeath(rows[i].code, rows[i].reason, endings[i].end, endings[i].log, endings[i].evidence);
    EXPECT_THAT(endings[i].stack,
                ::testing::EndsWith(RootInflammation(rows[i].code) + rows[i].output));
  }
}

// The stack attaches while a bring-up that began without it still runs, and fails.
TEST(CrashReport, StackThatComesDuringABringUp_IsToldOfItsFailure) {
  Board board(Mode::kAccelerated, Plain());
  std::atomic<bool> attached{false};
  board.Play([&](const Bytes& command) {
    if (OpcodeOf(command) != kMinidriver) return Healthy(command);
    WaitFor([&] { return attached.load(); }, milliseconds(1500));
    return Completion(Plain(), command, 0x0C);
  });
  board.StartService();
  board.StartStack();
  attached = board.service().WaitForOutput("bthal.zvkbtlinux: initialize_impl", kDeadline);
  const Ending ending = WaitForEnd(board);
  ExpectDeath(148, "Unable to download firmware patchram", ending.end, ending.log, ending.evidence);
  EXPECT_EQ(ending.stack, RootInflammation(148) + kFailed);
}

// The first failure leaves the files, the second one ends the process and leaves no others.
TEST(CrashReport, TwoFailuresAtOnce_LeaveThePairOfTheFirst) {
  Board board(Mode::kPlain, Plain());
  board.Play(Healthy);
  board.StartService();
  board.StartStack();
  ASSERT_TRUE(board.stack()->WaitForOutput("initialize done\n", kDeadline)) << board.Log();
  // A hardware error, and in the same read a completion too short for its opcode.
  board.pty().WriteToHost(ParseHex("04 10 01 2A 04 0E 02 01 03"));
  const Ending ending = WaitForEnd(board, RootInflammation(130));
  ASSERT_TRUE(ending.end);
  EXPECT_EQ(ending.end->signal, SIGABRT);
  EXPECT_EQ(ending.stack, "complete 0\ninitialize done\nevent 10 01 2A\n" + RootInflammation(130));
  ASSERT_EQ(ending.evidence.crash_infos.size(), 1u);
  EXPECT_THAT(ending.evidence.crash_infos[0],
              HasSubstr("crash_reason: ControllerHwError\ncrash_count: 1\n"));
  EXPECT_EQ(ending.evidence.core_dumps.size(), 1u);
  EXPECT_THAT(ending.log, HasSubstr("coredump has already been generated, skipping reason: Invalid "
                                    "/ un-reassembled HCI event\n"));
  ASSERT_EQ(ending.evidence.tombstones.size(), 1u);
  EXPECT_THAT(ending.evidence.tombstones[0], HasSubstr("::HostInvalidHciEvent("));
}

}  // namespace
}  // namespace test
