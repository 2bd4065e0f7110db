// Every step of a bring-up, going wrong in every way, with a stack attached and without.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <ctime>
#include <map>
#include <mutex>

#include "support/wait.h"
#include "system/board.h"
#include "system/crash_evidence.h"
#include "system/parallel.h"
#include "system/stall_meter.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

enum class Fault { kSilent, kRefused, kLate1900, kLate2100, kHangUp, kWrongSpeed, kSplit };
// In the order of the columns of bringup_faults.txt.
constexpr const char* kFaultNames[] = {"Silent", "Refused",    "Late1900ms", "Late2100ms",
                                       "HangUp", "WrongSpeed", "Split"};

constexpr uint8_t kRefusal = 0x0C;
// What another speed may look like: its first byte is no packet type.
const Bytes kNoise = {0xF8, 0x00, 0xC0, 0x1E, 0xE6, 0x80};
constexpr char kReadError[] = "OnDataReady: Read packet type error: Input/output error";
constexpr milliseconds kCommandTime{2000};
constexpr milliseconds kMargin{100};  // between a late answer and the time-out

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

struct Row {
  WireVector vector;
  size_t step = 0;  // index of the one that goes wrong
  Fault fault{};
  bool stack = false;
  std::string outcome;

  const WireStep& Step() const { return vector.steps[step]; }
  bool Fatal() const { return isdigit(outcome[0]) != 0; }
  bool Stuck() const { return stack && outcome == "stuck"; }
  // The controller says nothing understandable from the step on.
  bool Mute() const {
    return fault == Fault::kSilent || fault == Fault::kHangUp || fault == Fault::kWrongSpeed;
  }
  std::string Name() const {
    return vector.name + ", " + Step().name + " [" + std::to_string(step) + "], " +
           (stack ? "stack" : "no stack");
  }
};

struct Result {
  std::optional<ChildResult> end;  // empty when the service lives
  bool told = false;               // the end of the bring-up, to the stack or in the log
  bool recovered = false;          // for the next stack, after the end of one that was not told
  std::string log;
  std::string stack;
  std::string commands;  // one a line
  Evidence evidence;
  StallMeter::Clock::time_point answered{};  // the step that goes wrong
  system_clock::time_point answered_at{};    // the same by the clock of logs
};

// The first one of each name.
std::map<std::string, WireVector> VectorsByName() {
  std::map<std::string, WireVector> by_name;
  const WireVectors vectors = LoadWireVectors();
  for (const WireVector& vector : vectors.bring_ups) by_name.emplace(vector.name, vector);
  return by_name;
}

size_t IndexOf(const std::string& step, const WireVector& vector) {
  const bool second = step.size() > 2 && step.substr(step.size() - 2) == "#2";
  const std::string name = second ? step.substr(0, step.size() - 2) : step;
  for (size_t i = 0, seen = 0; i < vector.steps.size(); ++i) {
    if (vector.steps[i].name == name && seen++ == (second ? 1 : 0)) return i;
  }
  throw std::runtime_error("no step " + step);
}

std::vector<Row> RowsOf(Fault fault) {
#ifdef BTHAL_SANITIZED  // for which exact times are nothing new
  const size_t every = fault == Fault::kLate1900 || fault == Fault::kLate2100 ? 5 : 1;
#else
  constexpr size_t every = 1;
#endif
  size_t count = 0;
  const auto vectors = VectorsByName();
  std::vector<Row> rows;
  for (const Vector& v : LoadVectors("bringup_faults.txt")) {
    Row row;
    row.vector = vectors.at(v.name);
    row.step = IndexOf(v.fields.at(0), row.vector);
    row.fault = fault;
    row.outcome = v.fields.at(1 + static_cast<size_t>(fault));
    if (row.outcome == "-") continue;
    for (const bool stack : {true, false}) {
      row.stack = stack;
      if (!stack && row.Step().name == "write_address") continue;
      if (count++ % every == 0) rows.push_back(row);
    }
  }
  return rows;
}

// The controller of a row: the vector's own but for the one step.
class FaultyController {
 public:
  // Once repaired is true, it is as good as new.
  FaultyController(Board& board, const Row& row, Result& run, const std::atomic<bool>& repaired)
      : board_(board), row_(row), run_(run), repaired_(repaired) {}

  Bytes operator()(const Bytes& command) {
    if (repaired_) return Completion(row_.vector, command);
    const size_t index = index_++;
    if (gone_) return {};
    const WireStep* step = index < row_.vector.steps.size() ? &row_.vector.steps[index] : nullptr;
    if (index != row_.step) {
      const bool awaited = step == nullptr || step->awaited || fast_download_failed_;
      return awaited ? Completion(row_.vector, command) : Bytes{};
    }
    fast_download_failed_ = step->name == "set_download_config" &&
                            (row_.fault == Fault::kRefused || row_.fault == Fault::kLate2100);
    run_.answered = StallMeter::Clock::now();
    switch (row_.fault) {
      case Fault::kSilent:
        return {};
      case Fault::kRefused:
        return Completion(row_.vector, command, kRefusal);
      case Fault::kLate1900:
      case Fault::kLate2100:
        // Slow on purpose.
        run_.answered +=
            row_.fault == Fault::kLate1900 ? kCommandTime - kMargin : kCommandTime + kMargin;
        std::this_thread::sleep_until(run_.answered);
        run_.answered_at = system_clock::now();
        return Completion(row_.vector, command);
      case Fault::kHangUp:
        gone_ = true;
        board_.pty().HangUp();
        return {};
      case Fault::kWrongSpeed:
        gone_ = true;
        board_.pty().WriteToHost(kNoise);
        return {};
      case Fault::kSplit:
        for (const uint8_t byte : Concat({0x04}, Completion(row_.vector, command))) {
          board_.pty().WriteToHost({byte});
          WaitFor([&] { return board_.pty().Unread() == 0; });
        }
        return {};
    }
    return {};
  }

 private:
  Board& board_;
  const Row& row_;
  Result& run_;
  const std::atomic<bool>& repaired_;
  size_t index_ = 0;
  bool gone_ = false;
  bool fast_download_failed_ = false;  // so that records are awaited after all
};

// What the stack was told and what the controller was asked so far.
void Note(Board& board, Result* run) {
  run->stack = board.StackOutput();
  for (const Bytes& command : board.Commands()) run->commands += ToHex(command) + "\n";
}

Result Play(const Row& row) {
  Result run;
  Board board(row.stack ? Mode::kPlain : Mode::kAccelerated, row.vector);
  std::atomic<bool> repaired{false};
  board.Play(FaultyController(board, row, run, repaired));
  board.StartService();
  if (row.stack) board.StartStack();

  const char* sign = row.Stuck() ? "Apply: Send VSC <" : "BTZVK controller is ready";
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (!run.end && !run.told && std::chrono::steady_clock::now() < deadline) {
    run.end = board.service().Wait(milliseconds(20));
    run.told = row.stack && !row.Stuck() ? Contains(board.StackOutput(), "initialize done")
                                         : Contains(board.Log(), sign);
  }
  if (row.Stuck() && !run.end) {
    // Nothing happens from here on, until the stack dies.
    run.end = board.service().Wait(milliseconds(300));
    run.told = Contains(board.StackOutput(), "complete");
    Note(board, &run);
    board.stack()->Signal(SIGKILL);
    run.recovered = board.service().WaitForOutput("BluetoothHci::close() Done", kDeadline);
    if (row.fault != Fault::kHangUp) {  // the line is there no more
      repaired = true;
      board.StartStack();
      board.stack()->WaitForOutput("initialize ", kDeadline);
      run.recovered &= board.StackOutput() == "complete 0\ninitialize done\n";
    }
  } else {
    if (run.end && row.stack) board.stack()->WaitForOutput("initialize failed", kDeadline);
    Note(board, &run);
  }
  board.StopPlaying();
  run.log = board.Log();
  run.evidence = EvidenceOf(board);
  return run;
}

// When the host gave up waiting for the step that goes wrong, as its log has it.
std::optional<system_clock::time_point> TimedOutAt(const Row& row, const std::string& log) {
  char text[100];
  snprintf(text, sizeof text, "btzvk_send_command_wait_complete: 0x%04x LEN 0x%02x Result 0x03\n",
           row.Step().Opcode(), row.Step().packet[3]);
  const size_t at = log.find(text);
  if (at == std::string::npos) return std::nullopt;
  tm local{};
  local.tm_isdst = -1;
  const size_t line = log.rfind('\n', at) + 1;
  const char* rest = strptime(log.c_str() + line, "%Y-%m-%d %H:%M:%S.", &local);
  if (rest == nullptr) return std::nullopt;
  // A lock that ThreadSanitizer sees: it does not see the C library's.
  static std::mutex lock;
  const std::lock_guard<std::mutex> guard(lock);
  return system_clock::from_time_t(mktime(&local)) + milliseconds(atoi(rest));
}

// Whether the machine, not the service, decided on which side of the time-out an answer came: one
// meant to be in time was held up on its way, or the host slept on until a late one was there.
bool Disturbed(const Row& row, const Result& run, StallMeter& meter) {
  const auto timed_out = TimedOutAt(row, run.log);
  if (row.fault == Fault::kLate1900) {
    return timed_out && run.answered_at > *timed_out - kMargin / 2;
  }
  return row.fault == Fault::kLate2100 && !timed_out &&
         meter.Longest(run.answered - kMargin, run.answered) > kMargin / 2;
}

Result PlayUndisturbed(const Row& row, StallMeter& meter) {
  for (int attempt = 1;; ++attempt) {
    Result run = WithoutStalls<Result>(meter, [&] { return Play(row); });
    if (attempt == 10 || !Disturbed(row, run, meter)) return run;
    printf("once more, the machine stood still: %s\n", row.Name().c_str());
  }
}

// The commands that must have come.
std::string ExpectedCommands(const Row& row) {
  std::string commands;
  for (size_t i = 0; i < row.vector.steps.size(); ++i) {
    const WireStep& step = row.vector.steps[i];
    if (i > row.step && (row.Fatal() || (row.Mute() && row.Step().awaited))) break;
    if (!row.stack && step.name == "write_address") break;
    commands += ToHex(step.packet).substr(3) + "\n";
  }
  return commands;
}

std::string ExpectedReason(const Row& row) {
  const bool second =
      row.vector.steps[row.step].speed != 0 && IndexOf("to_4000000#2", row.vector) <= row.step;
  if (row.outcome == "147") return "HCI Reset error before downloading firmware";
  if (row.outcome == "148") return "Unable to download firmware patchram";
  if (row.outcome == "149") return "HCI Reset error after firmware downloaded";
  return std::string("Unable to change to 4M baud rate ") +
         (second ? "after firmware downloaded" : "before downloading firmware");
}

// The completion of a command that nobody waits for belongs to the stack.
std::string ExpectedEvents(const Row& row) {
  const bool late = row.fault == Fault::kLate2100 && row.Step().name != "write_address";
  const bool unasked =
      !row.Step().awaited && (row.fault == Fault::kRefused || row.fault == Fault::kSplit);
  if (!late && !unasked) return "";
  const Bytes command(row.Step().packet.begin() + 1, row.Step().packet.end());
  const uint8_t status = row.fault == Fault::kRefused ? kRefusal : 0;
  return "event " + ToHex(Completion(row.vector, command, status)) + "\n";
}

std::string Without(std::string text, const std::string& part) {
  const size_t at = text.find(part);
  return at == std::string::npos ? text : text.erase(at, part.size());
}

// The record that the failed step itself leaves; a status is shown in hexadecimal, some of them
// padded with a blank to two characters.
std::string ExpectedRecord(const std::string& step, uint8_t status) {
  static const std::map<std::string, const char*> formats = {
      {"to_4000000", "baudrate_change: Update Baud Rate command failed: 0x%2X\n"},
      {"set_download_config",
       "enable_fast_download: Set Download Config command returned: 0x%2X\n"},
      {"download_minidriver", "firmware_download: UDownload Minidrv command failed: 0x%2X\n"},
      {"record_data", "firmware_download: Failed to write patchram: 0x%x\n"},
      {"record_longest", "firmware_download: Failed to write patchram: 0x%x\n"},
      {"launch_of_file", "firmware_download: Failed to write patchram: 0x%x\n"},
      {"launch_default", "firmware_download: Launch Ram command failed: 0x%x\n"}};
  const auto format = formats.find(step);
  if (format == formats.end()) return "";
  char text[100];
  snprintf(text, sizeof text, format->second, status);
  return text;
}

void JudgeDeath(const Row& row, const Result& run) {
  const std::string reason = ExpectedReason(row);
  ExpectDeath(std::stoi(row.outcome), reason, run.end, run.log, run.evidence);
  if (row.stack) {
    // A late completion may still arrive while the process dies.
    EXPECT_EQ(Without(run.stack, ExpectedEvents(row)),
              RootInflammation(std::stoi(row.outcome)) + "initialize failed\n");
  } else {
    EXPECT_THAT(run.log, HasSubstr("notify_cb: g_cb == nullptr\n"));
  }
  if (run.evidence.core_dumps.size() != 1) return;
  const std::string& core = run.evidence.core_dumps[0];
  if (row.Step().awaited) {
    const uint8_t status = row.fault == Fault::kRefused ? kRefusal : 3;
    char failed[80];
    snprintf(failed, sizeof failed,
             ": btzvk_send_command_wait_complete: opcode 0x%04x LEN 0x%02x Result 0x%02x\n",
             row.Step().Opcode(), row.Step().packet[3], status);
    EXPECT_THAT(core, HasSubstr(failed));
    EXPECT_THAT(core, HasSubstr(ExpectedRecord(row.Step().name, status)));
  }
  EXPECT_THAT(core, HasSubstr(": Shutdown\n"));
  if (row.fault == Fault::kHangUp) {
    // The kernel may tell of it after the 2 s.
    EXPECT_THAT(run.log, HasSubstr("OnDataReady: Unexpected EOF reading the packet type!\n"));
  }
  if (row.fault == Fault::kWrongSpeed) {
    EXPECT_THAT(run.log, HasSubstr("OnDataReady: Unimplemented Packet Type: 248 detected!\n"));
  }
}

// A line that hangs up may give an error instead of an end of file, which ends the process at once.
bool ReadFailed(const Row& row, const Result& run) {
  return row.fault == Fault::kHangUp && Contains(run.log, kReadError);
}

void JudgeReadError(const Result& run) {
  ASSERT_TRUE(run.end);
  EXPECT_EQ(run.end->signal, SIGABRT);
  EXPECT_THAT(run.stack, AnyOf("", "initialize failed\n"));
  EXPECT_TRUE(run.evidence.crash_infos.empty());
  EXPECT_TRUE(run.evidence.core_dumps.empty());
  ASSERT_EQ(run.evidence.tombstones.size(), 1u);
  EXPECT_THAT(run.evidence.tombstones[0],
              HasSubstr(std::string("Abort message: '") + kReadError + "'\n"));
  EXPECT_THAT(run.evidence.tombstones[0], HasSubstr("::H4Protocol::OnDataReady("));
}

void JudgeLife(const Row& row, const Result& run) {
  EXPECT_FALSE(run.end) << "ended with exit code " << run.end->exit_code << ", signal "
                        << run.end->signal;
  EXPECT_TRUE(run.evidence.Empty());
  if (row.Stuck()) {
    EXPECT_FALSE(run.told);
    EXPECT_TRUE(run.recovered);
    EXPECT_EQ(run.stack, "");
    EXPECT_THAT(run.log, HasSubstr("gave up waiting for the controller's answer"));
    return;
  }
  EXPECT_TRUE(run.told);
  if (row.stack) {
    EXPECT_EQ(run.stack, ExpectedEvents(row) + "complete 0\ninitialize done\n");
  }
  const bool low_power = row.outcome == "ready";
  EXPECT_THAT(run.log, HasSubstr(low_power ? "lpm_setup: LPM Enabled\n"
                                           : "lpm_setup: Unable to enable LPM controller:"));
  EXPECT_THAT(run.log, Not(HasSubstr(low_power ? "Unable to enable LPM" : "LPM Enabled")));
}

std::string LastLines(const std::string& log) {
  return log.substr(log.size() > 3000 ? log.find('\n', log.size() - 3000) : 0);
}

class BringUpFaultsSlow : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(EveryStep, BringUpFaultsSlow, ::testing::Range(0, 7),
                         [](const auto& fault) { return kFaultNames[fault.param]; });

TEST_P(BringUpFaultsSlow, EndAsTheTableSays) {
  const std::vector<Row> rows = RowsOf(static_cast<Fault>(GetParam()));
  StallMeter meter;
  const std::vector<Result> runs =
      InParallel<Result>(rows.size(), [&](size_t i) { return PlayUndisturbed(rows[i], meter); });
  printf("count: %zu rows\n", rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].Name() + "\n" + runs[i].stack + LastLines(runs[i].log));
    if (ReadFailed(rows[i], runs[i])) {
      JudgeReadError(runs[i]);
    } else if (rows[i].Fatal()) {
      JudgeDeath(rows[i], runs[i]);
    } else {
      JudgeLife(rows[i], runs[i]);
    }
    // In fast download more records may be under way when the first one meets its fate.
    const std::string commands = runs[i].commands, expected = ExpectedCommands(rows[i]);
    if (!rows[i].Step().awaited && rows[i].Fatal()) {
      EXPECT_THAT(commands, StartsWith(expected));
    } else {
      EXPECT_EQ(commands, expected);
    }
  }
}

// Noise while no stack is there closes the port under a controller that counts as up: the next
// stack finds it neither ready nor down.
TEST(BringUpTwice, AfterNoiseWithoutAStack_IsRefusedOnceAndWorksForTheNextStack) {
  const WireVector vector = LoadWireVectors().bring_ups.front();
  Board board(Mode::kAccelerated, vector);
  board.Play([&](const Bytes& command) { return Completion(vector, command); });
  board.StartService();
  ASSERT_TRUE(board.service().WaitForOutput("BTZVK controller is ready", kDeadline));
  board.pty().WriteToHost(kNoise);
  ASSERT_TRUE(WaitFor([&] {
    return CountOf("PowerControl: Disabling", board.Log()) == 2;  // the first one is the bring-up's
  })) << board.Log();

  board.StartStack();
  EXPECT_TRUE(board.stack()->WaitForOutput("complete 2\n", kDeadline)) << board.Log();
  EXPECT_TRUE(board.service().WaitForOutput(
      "perform_init: hci_handle != nullptr! -> Double attempt to initialize the HAL\n", kDeadline));
  board.stack()->Signal(SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return CountOf("BTZVK controller is ready", board.Log()) == 2; }))
      << board.Log();

  board.StartStack();
  EXPECT_TRUE(board.stack()->WaitForOutput("initialize done\n", kDeadline)) << board.Log();
  EXPECT_EQ(board.StackOutput(), "complete 0\ninitialize done\n");
  EXPECT_TRUE(EvidenceOf(board).Empty());
}

}  // namespace
}  // namespace test
