// Every byte that the host writes in a bring-up, and what becomes of it when one step goes wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <atomic>
#include <map>

#include "support/wait.h"
#include "system/board.h"
#include "system/parallel.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// kNone is a bring-up without a fault; the others are the columns of bringup_faults.txt, in order.
enum class Fault { kNone, kSilent, kRefused, kLate, kTooLate, kHangUp, kWrongSpeed, kSplit };
constexpr const char* kFaultNames[] = {"None",    "Silent", "Refused",    "Late",
                                       "TooLate", "HangUp", "WrongSpeed", "Split"};

constexpr uint8_t kRefusal = 0x0C;
// What the host may read when the controller sends at another speed; the first byte is no packet
// type.
const Bytes kNoise = {0xF8, 0x00, 0xC0, 0x1E, 0xE6, 0x80};
constexpr char kReadError[] = "OnDataReady: Read packet type error: Input/output error";
// When a late answer comes: a command may take 2 s, and either time leaves 1 s for a busy machine.
constexpr milliseconds kLateTime{1000}, kTooLateTime{3000};
// The pause that the host makes between the completion of Download Minidriver and the first record.
constexpr milliseconds kMinidriverTime{50};

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

struct Row {
  WireVector vector;
  size_t step = 0;  // index of the one that goes wrong
  Fault fault{};
  bool stack = false;
  std::string outcome;
  std::string record;  // what the core dump says of the step when it is not answered

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
  bool told = false;               // whether stack or log was told that the bring-up has ended
  bool recovered = false;          // whether a second stack was served after the first was stuck
  std::string log;
  std::string stack;
  std::string wire;       // a line per command: speed and bytes
  std::string verdict;    // the first sentence of the report on a service that has died
  std::string unasked;    // what the host wrote before the answer or pause that it must wait for
  std::string low_power;  // what the driver was told: on is 1
  Board::Evidence evidence;
};

size_t IndexOf(const std::string& step, const WireVector& vector) {
  const bool second = step.size() > 2 && step.substr(step.size() - 2) == "#2";
  const std::string name = second ? step.substr(0, step.size() - 2) : step;
  for (size_t i = 0, seen = 0; i < vector.steps.size(); ++i) {
    if (vector.steps[i].name == name && seen++ == (second ? 1 : 0)) return i;
  }
  throw std::runtime_error("no step " + step);
}

std::vector<Row> RowsOf(Fault fault) {
  std::vector<Row> rows;
  std::map<std::string, WireVector> vectors;  // the first one of each name
  for (const WireVector& vector : LoadWireVectors().bring_ups) {
    vectors.emplace(vector.name, vector);
    if (fault == Fault::kNone) rows.push_back({vector, 0, fault, true, "ready", ""});
  }
  if (fault == Fault::kNone) return rows;
  for (const Vector& v : LoadVectors("bringup_faults.txt")) {
    Row row{vectors.at(v.name), 0, fault, true, v.fields.at(static_cast<size_t>(fault)),
            v.fields.at(8)};
    row.step = IndexOf(v.fields.at(0), row.vector);
    if (row.outcome == "-") continue;
    rows.push_back(row);
    // Without a stack nobody is told. Two columns show that for every step.
    row.stack = false;
    const bool differs = fault == Fault::kSilent || fault == Fault::kRefused;
    if (differs && row.Step().name != "write_address") rows.push_back(row);
  }
  return rows;
}

std::string WireLine(int speed, const Bytes& packet) {
  return std::to_string(speed) + " bit/s: " + ToHex(packet) + "\n";
}

std::string WireLines(const std::vector<WireStep>& steps) {
  std::string lines;
  for (const WireStep& step : steps) lines += WireLine(step.speed, step.packet);
  return lines;
}

// The controller of a row: answers as the vector says, except to the step that goes wrong.
class FaultyController {
 public:
  // Answers everything from the moment at which repaired becomes true.
  FaultyController(Board& board, const Row& row, Result& run, const std::atomic<bool>& repaired)
      : board_(board), row_(row), run_(run), repaired_(repaired) {}

  Bytes operator()(const Bytes& command) {
    if (repaired_) return Completion(row_.vector, command);
    if (steady_clock::now() < paused_until_)
      run_.unasked += "no pause before " + ToHex(command) + "\n";
    paused_until_ = {};
    run_.wire += WireLine(gone_ ? 0 : board_.pty().Speed(), Concat({0x01}, command));
    const size_t index = index_++;
    if (gone_) return {};
    const WireStep* step = index < row_.vector.steps.size() ? &row_.vector.steps[index] : nullptr;
    const bool awaited = step == nullptr || step->awaited || fast_download_failed_;
    if (row_.fault == Fault::kNone && step != nullptr)
      return awaited ? Answer(*step, command) : Bytes{};
    if (index != row_.step) return awaited ? Completion(row_.vector, command) : Bytes{};
    fast_download_failed_ = step->name == "set_download_config" &&
                            (row_.fault == Fault::kRefused || row_.fault == Fault::kTooLate);
    switch (row_.fault) {
      case Fault::kNone:
        return Completion(row_.vector, command);
      case Fault::kSilent:
        return {};
      case Fault::kRefused:
        return Completion(row_.vector, command, kRefusal);
      case Fault::kLate:
      case Fault::kTooLate:
        std::this_thread::sleep_for(row_.fault == Fault::kLate ? kLateTime : kTooLateTime);
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
  // Answers after 20 ms, in which a host that does not wait writes its next command.
  Bytes Answer(const WireStep& step, const Bytes& command) {
    pollfd more{board_.pty().master(), POLLIN, 0};
    if (poll(&more, 1, 20) != 0) run_.unasked += "after " + ToHex(command) + "\n";
    if (step.name == "download_minidriver") paused_until_ = steady_clock::now() + kMinidriverTime;
    return Completion(row_.vector, command, step.status);
  }

  Board& board_;
  const Row& row_;
  Result& run_;
  const std::atomic<bool>& repaired_;
  size_t index_ = 0;
  bool gone_ = false;
  bool fast_download_failed_ = false;  // so that records are awaited after all
  steady_clock::time_point paused_until_{};
};

std::string ExpectedEvents(const Row& row);

Result Play(const Row& row) {
  Result run;
  Board board(row.stack ? Mode::kPlain : Mode::kAccelerated, row.vector);
  std::atomic<bool> repaired{false};
  board.Play(FaultyController(board, row, run, repaired));
  board.StartService();
  if (row.stack) board.StartStack();

  const char* sign = row.Stuck() ? "Apply: Send VSC <" : "BTZVK controller is ready";
  const auto deadline = steady_clock::now() + kDeadline;
  while (!run.end && !run.told && steady_clock::now() < deadline) {
    run.end = board.service().Wait(milliseconds(20));
    run.told = row.stack && !row.Stuck() ? Contains(board.StackOutput(), "initialize done")
                                         : Contains(board.Log(), sign);
  }
  if (row.Stuck() && !run.end) {
    // The bring-up waits until the stack dies.
    run.end = board.service().Wait(milliseconds(300));
    run.told = Contains(board.StackOutput(), "complete");
    run.stack = board.StackOutput();
    board.stack()->Signal(SIGKILL);
    run.recovered = board.service().WaitForOutput("BluetoothHci::close() Done", kDeadline);
    if (row.fault != Fault::kHangUp) {  // a line that has hung up stays so
      repaired = true;
      board.StartStack();
      board.stack()->WaitForOutput("initialize ", kDeadline);
      run.recovered &= board.StackOutput() == "complete 0\ninitialize done\n";
    }
  } else {
    if (run.end && row.stack) board.stack()->WaitForOutput("initialize failed", kDeadline);
    if (!run.end && row.stack) board.stack()->WaitForOutput(ExpectedEvents(row), kDeadline);
    run.stack = board.StackOutput();
  }
  if (run.end) {
    Run({ProgramDir() + "/bthalctl", "--root", board.Path(""), "--wait", "0", "report",
         "--files-only", "-o", board.Path("page.html")},
        &run.verdict);
  }
  const Bytes rest = board.StopPlaying();
  if (!rest.empty()) run.unasked += "and " + ToHex(rest) + "\n";
  run.log = board.Log();
  run.low_power = ReadFile(board.Path("proc/bluetooth/sleep/lpm"));
  run.evidence = board.Left();
  return run;
}

// The commands that must have come.
std::string ExpectedWire(const Row& row) {
  std::vector<WireStep> steps;
  for (size_t i = 0; i < row.vector.steps.size(); ++i) {
    const WireStep& step = row.vector.steps[i];
    const bool ends = row.Fatal() || (row.Mute() && row.Step().awaited);
    if (row.fault != Fault::kNone && i > row.step && ends) break;
    if (row.stack || step.name != "write_address") steps.push_back(step);
  }
  return WireLines(steps);
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

// The stack gets the completion of a command that the service does not, or no longer, wait for.
std::string ExpectedEvents(const Row& row) {
  const bool late = row.fault == Fault::kTooLate && row.Step().name != "write_address";
  const bool unasked =
      !row.Step().awaited && (row.fault == Fault::kRefused || row.fault == Fault::kSplit);
  if (!late && !unasked) return "";
  const Bytes command(row.Step().packet.begin() + 1, row.Step().packet.end());
  const uint8_t status = row.fault == Fault::kRefused ? kRefusal : 0;
  return "event " + ToHex(Completion(row.vector, command, status)) + "\n";
}

// The step as a report calls it.
std::string ReportedStep(const std::string& step) {
  if (step == "set_download_config") return "download mode";  // which waits behind it
  if (step == "download_minidriver") return "download mode";
  if (step.rfind("record_", 0) == 0) return "firmware records";
  if (step.rfind("launch_", 0) == 0) return "launch";
  return step == "to_4000000" ? "line speed" : "reset and chip id";
}

void JudgeDeath(const Row& row, const Result& run) {
  // A record that nobody waits for may be missed by the launch only.
  EXPECT_THAT(run.verdict,
              AnyOf(HasSubstr(" failed at \"" + ReportedStep(row.Step().name) + "\": "),
                    HasSubstr(row.Step().awaited ? "never" : " failed at \"launch\": ")));
  ExpectDeath(std::stoi(row.outcome), ExpectedReason(row), run.end, run.log, run.evidence);
  if (row.stack) {
    // A late completion may still arrive while the process dies.
    const std::string event = ExpectedEvents(row);
    EXPECT_EQ(event.empty() ? run.stack : Replaced(run.stack, event, ""),
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
    EXPECT_THAT(core, HasSubstr(status == 3 && row.record != "-" ? ": " + row.record + "\n" : ""));
  }
  EXPECT_THAT(core, HasSubstr(": Shutdown\n"));
  if (row.fault == Fault::kWrongSpeed) {
    EXPECT_THAT(run.log, HasSubstr("OnDataReady: Unimplemented Packet Type: 248 detected!\n"));
  }
}

// A line that hangs up may give an error instead of an end of file, which ends the process at once.
void JudgeReadError(const Result& run) {
  EXPECT_TRUE(run.end && run.end->signal == SIGABRT);
  EXPECT_THAT(run.stack, AnyOf("", "initialize failed\n"));
  EXPECT_TRUE(run.evidence.crash_infos.empty() && run.evidence.core_dumps.empty());
  ASSERT_EQ(run.evidence.tombstones.size(), 1u);
  EXPECT_THAT(run.evidence.tombstones[0],
              HasSubstr(std::string("Abort message: '") + kReadError + "'\n"));
  EXPECT_THAT(run.evidence.tombstones[0], HasSubstr("::H4Protocol::OnDataReady("));
}

void JudgeLife(const Row& row, const Result& run) {
  EXPECT_FALSE(run.end) << "ended with exit code " << run.end->exit_code << ", signal "
                        << run.end->signal;
  EXPECT_TRUE(run.evidence.Empty());
  EXPECT_EQ(run.told, !row.Stuck());
  if (row.Stuck()) {
    EXPECT_TRUE(run.recovered);
    EXPECT_EQ(run.stack, "");
    EXPECT_THAT(run.log, HasSubstr("gave up waiting for the controller's answer"));
    return;
  }
  if (row.stack) {
    // An event runs ahead of its answer, the completion does not: either may come first.
    const std::string event = ExpectedEvents(row);
    EXPECT_EQ(event.empty() ? run.stack : Replaced(run.stack, event, ""),
              "complete 0\ninitialize done\n");
    if (!event.empty()) {
      EXPECT_EQ(CountOf(event, run.stack), 1u);
    }
  }
  const bool low_power = row.outcome == "ready";
  EXPECT_THAT(run.log, HasSubstr(low_power ? "lpm_setup: LPM Enabled\n"
                                           : "lpm_setup: Unable to enable LPM controller:"));
  EXPECT_THAT(run.log, Not(HasSubstr(low_power ? "Unable to enable LPM" : "LPM Enabled")));
  EXPECT_THAT(run.low_power, ::testing::EndsWith(low_power ? "1" : "0"));
}

void PlayAll(Fault fault) {
  const std::vector<Row> rows = RowsOf(fault);
  const auto runs = InParallel<Result>(rows.size(), [&](size_t i) { return Play(rows[i]); });
  printf("count: %zu rows\n", rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    const Row& row = rows[i];
    const Result& run = runs[i];
    const size_t shown = std::min<size_t>(run.log.size(), 3000);
    SCOPED_TRACE(row.Name() + "\n" + run.stack + run.log.substr(run.log.size() - shown));
    if (fault == Fault::kHangUp && Contains(run.log, kReadError)) {
      JudgeReadError(run);
    } else if (row.Fatal()) {
      JudgeDeath(row, run);
    } else {
      JudgeLife(row, run);
    }
    // In fast download the host may have written more records before the failure shows.
    const std::string expected = ExpectedWire(row);
    if (!row.Step().awaited && row.Fatal()) {
      EXPECT_THAT(run.wire, StartsWith(expected));
    } else {
      EXPECT_EQ(run.wire, expected);
    }
    EXPECT_EQ(run.unasked, "");
  }
}

TEST(BringUpWire, IsWhatTheFormatsSay) { PlayAll(Fault::kNone); }

class BringUpFaults : public ::testing::TestWithParam<Fault> {};
using BringUpFaultsSlow = BringUpFaults;

std::string FaultName(const ::testing::TestParamInfo<Fault>& fault) {
  return kFaultNames[static_cast<size_t>(fault.param)];
}

INSTANTIATE_TEST_SUITE_P(EveryStep, BringUpFaults,
                         ::testing::Values(Fault::kRefused, Fault::kWrongSpeed, Fault::kSplit),
                         FaultName);
INSTANTIATE_TEST_SUITE_P(EveryStep, BringUpFaultsSlow,
                         ::testing::Values(Fault::kSilent, Fault::kLate, Fault::kTooLate,
                                           Fault::kHangUp),
                         FaultName);

TEST_P(BringUpFaults, EndAsTheTableSays) { PlayAll(GetParam()); }
TEST_P(BringUpFaultsSlow, EndAsTheTableSays) { PlayAll(GetParam()); }

// The controller comes up before any stack, and stays up between two.
TEST(BringUpWire, OfAcceleratedBluetooth_IsABringUpAndAResetForEachComingAndGoing) {
  const WireVectors vectors = LoadWireVectors();
  Row row{vectors.bring_ups.front(), 0, Fault::kNone, false, "ready", ""};
  std::vector<WireStep>& steps = row.vector.steps;
  ASSERT_EQ(steps.back().name, "write_address");
  steps.pop_back();  // a stack's
  for (int stack = 0; stack < 2; ++stack) {
    steps.insert(steps.end(), vectors.attach.begin(), vectors.attach.end());
    steps.insert(steps.end(), vectors.close.begin(), vectors.close.end());
  }
  Result run;
  const std::atomic<bool> repaired{false};
  Board board(Mode::kAccelerated, row.vector);
  board.Play(FaultyController(board, row, run, repaired));
  board.StartService();
  ASSERT_TRUE(board.service().WaitForOutput("BTZVK controller is ready", kDeadline));
  for (int stack = 0; stack < 2; ++stack) {
    board.StartStack({"close"});
    EXPECT_TRUE(board.stack()->WaitForOutput("close done", kDeadline)) << board.Log();
  }
  EXPECT_TRUE(board.StopPlaying().empty());
  EXPECT_EQ(run.wire, WireLines(steps)) << board.Log();
  EXPECT_EQ(run.unasked, "");
  EXPECT_EQ(board.StackOutput(), "complete 0\ninitialize done\nclose done\n");
}

}  // namespace
}  // namespace test
