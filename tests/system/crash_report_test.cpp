// What an engineer finds after the service has ended itself, and that nothing keeps it from ending.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "support/wait.h"
#include "system/board.h"
#include "system/crash_evidence.h"
#include "system/parallel.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::Not;

const WireVector& Plain() {
  static const WireVector vector = LoadWireVectors().bring_ups.front();
  return vector;
}

// A controller without faults, but for what fault does with a command; it returns whether it did.
ScriptedController::Script Healthy(const std::function<bool(const Bytes&)>& fault =
                                       [](const Bytes&) { return false; }) {
  return [fault](const Bytes& command) {
    return fault(command) ? Bytes{} : Completion(Plain(), command);
  };
}

uint16_t OpcodeOf(const Bytes& command) {
  return static_cast<uint16_t>(command[0] | command[1] << 8);
}

constexpr uint16_t kReset = 0x0C03;
constexpr uint16_t kMinidriver = 0xFC2E;

struct Ending {
  std::optional<ChildResult> end;
  std::string log;
  std::string stack;
  Evidence evidence;
};

// last_words: of the stack, whose call fails once the service is gone.
Ending WaitForEnd(Board& board, const std::string& last_words = "initialize failed\n") {
  Ending ending;
  ending.end = board.service().Wait(kDeadline);
  if (board.stack() != nullptr) board.stack()->WaitForOutput(last_words, kDeadline);
  ending.log = board.Log();
  ending.stack = board.StackOutput();
  ending.evidence = EvidenceOf(board);
  return ending;
}

// ---- what fails before the controller is asked anything

struct Spoilt {
  const char* what;
  int code;
  const char* reason;
  std::function<void(const Board&)> spoil;
  bool needs_stack;
};

const std::vector<Spoilt>& SpoiltBoards() {
  static const auto* boards = new std::vector<Spoilt>{
      {"the power switch cannot be opened", 145, "Unable to open rfkill state",
       [](const Board& b) { std::filesystem::remove(b.Path("sys/class/rfkill/rfkill0/state")); },
       false},
      {"the power switch cannot be written", 145, "Cannot write power control data",
       [](const Board& b) {
         std::filesystem::remove(b.Path("sys/class/rfkill/rfkill0/state"));
         std::filesystem::create_symlink("/dev/full", b.Path("sys/class/rfkill/rfkill0/state"));
       },
       false},
      {"there is no serial port", 144, "Host Open Port Error",
       [](const Board& b) { std::filesystem::remove(b.Path("dev/ttyBT7")); }, false},
      {"there is no address", 150, "Can't fetch the provisioning BDA",
       [](const Board& b) {
         std::filesystem::remove(b.Path("proc/device-tree/chosen/config/bt_addr"));
       },
       true},
      // The one code without a message: looking the message up is the end.
      {"there is no coexistence device", 151, "",
       [](const Board& b) { std::filesystem::remove(b.Path("dev/wbrc")); }, false},
  };
  return *boards;
}

TEST(CrashReport, OfABoardWithAPartMissing_NamesThePart) {
  struct BoardRow {
    const Spoilt* board;
    bool stack;
  };
  std::vector<BoardRow> rows;
  for (const Spoilt& board : SpoiltBoards()) {
    rows.push_back({&board, true});
    if (!board.needs_stack) rows.push_back({&board, false});
  }
  const auto endings = InParallel<Ending>(rows.size(), [&](size_t i) {
    Board board(rows[i].stack ? Mode::kPlain : Mode::kAccelerated, Plain());
    rows[i].board->spoil(board);
    board.Play(Healthy());
    board.StartService();
    if (rows[i].stack) board.StartStack();
    return WaitForEnd(board);
  });
  for (size_t i = 0; i < rows.size(); ++i) {
    const Spoilt& spoilt = *rows[i].board;
    const Ending& ending = endings[i];
    SCOPED_TRACE(std::string(spoilt.what) + (rows[i].stack ? ", stack" : ", no stack"));
    std::string event = RootInflammation(spoilt.code);
    if (spoilt.code == 151) {
      event.clear();
      ASSERT_TRUE(ending.end);
      EXPECT_EQ(ending.end->signal, SIGABRT);
      EXPECT_TRUE(ending.evidence.crash_infos.empty());
      EXPECT_TRUE(ending.evidence.core_dumps.empty());
      EXPECT_EQ(ending.evidence.tombstones.size(), 1u);
      EXPECT_THAT(ending.log, HasSubstr("open_coex_dev: return ret (0), count:10\n"));
    } else {
      ExpectDeath(spoilt.code, spoilt.reason, ending.end, ending.log, ending.evidence);
    }
    if (rows[i].stack) {
      EXPECT_EQ(ending.stack, event + "initialize failed\n");
    }
  }
}

// ---- a controller that is up already

// The chip keeps running between two stacks, which are given it by a reset only.
TEST(CrashReport, OfAnAcceleratedResetThatFails_NamesIt) {
  const struct {
    const char* stack;
    int resets;  // that are answered
    int code;
    const char* reason;
    const char* output;
  } rows[] = {
      {"attach", 2, 152, "Accelerated Init failed", "initialize failed\n"},
      {"close", 3, 153, "Accelerated shutdown failed", "close failed\n"},
  };
  const auto endings = InParallel<Ending>(std::size(rows), [&](size_t i) {
    Board board(Mode::kAccelerated, Plain());
    board.Play(Healthy([&, left = rows[i].resets](const Bytes& command) mutable {
      return OpcodeOf(command) == kReset && left-- <= 0;
    }));
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

// It has attached by the time that the bring-up begun without it fails.
TEST(CrashReport, StackThatComesDuringABringUp_IsToldOfItsFailure) {
  Board board(Mode::kAccelerated, Plain());
  std::atomic<bool> attached{false};
  board.Play([&](const Bytes& command) {
    if (OpcodeOf(command) != kMinidriver) return Completion(Plain(), command);
    WaitFor([&] { return attached.load(); }, milliseconds(1500));
    return Completion(Plain(), command, 0x0C);
  });
  board.StartService();
  board.StartStack();
  attached = board.service().WaitForOutput("bthal.zvkbtlinux: initialize_impl", kDeadline);
  const Ending ending = WaitForEnd(board);
  ExpectDeath(148, "Unable to download firmware patchram", ending.end, ending.log, ending.evidence);
  EXPECT_EQ(ending.stack, RootInflammation(148) + "initialize failed\n");
}

// The first failure leaves the files, the second one ends the process and leaves no others.
TEST(CrashReport, TwoFailuresAtOnce_LeaveThePairOfTheFirst) {
  Board board(Mode::kPlain, Plain());
  board.Play(Healthy());
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

// The service is started again at once and fails again: its files would have the same names.
TEST(CrashReport, TwoServicesInOneSecond_LeaveTheFilesOfTheFirstAlone) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    Board board(Mode::kAccelerated, Plain());
    std::filesystem::remove(board.Path("dev/ttyBT7"));
    const time_t now = time(nullptr);
    ASSERT_TRUE(WaitFor([&] { return time(nullptr) > now; }));  // a whole second is left
    board.StartService();
    ASSERT_TRUE(board.service().Wait(kDeadline));
    const std::vector<std::string> infos = board.CrashInfos(), cores = board.CoreDumps();
    std::filesystem::remove(board.Path("sys/class/rfkill/rfkill0/state"));
    board.StartService();
    const Ending second = WaitForEnd(board);
    if (second.evidence.crash_infos.size() == 2) continue;  // the second has passed
    EXPECT_EQ(second.end->signal, SIGABRT);
    EXPECT_THAT(second.log, HasSubstr("vendor error code 145"));
    EXPECT_THAT(second.log, HasSubstr("start_crash_dump: Failed to open coredump file: "));
    EXPECT_EQ(second.evidence.crash_infos, infos);
    EXPECT_EQ(second.evidence.core_dumps, cores);
    EXPECT_EQ(second.evidence.tombstones.size(), 2u);
    return;
  }
  FAIL() << "never two failures in one second";
}

// ---- what must not hold up the end

// The stack no longer answers: it is given a second, not more.
TEST(CrashReport, StackThatIsStopped_HoldsUpTheEndForASecondAtMost) {
  Board board(Mode::kPlain, Plain());
  std::atomic<pid_t> stack{0};
  std::chrono::steady_clock::time_point stopped;
  board.Play([&](const Bytes& command) {
    if (OpcodeOf(command) != kMinidriver) return Completion(Plain(), command);
    WaitFor([&] { return stack != 0; });
    kill(stack, SIGSTOP);
    stopped = std::chrono::steady_clock::now();
    return Completion(Plain(), command, 0x0C);
  });
  board.StartService();
  board.StartStack();
  stack = board.stack()->pid();
  const std::optional<ChildResult> end = board.service().Wait(kDeadline);
  const auto taken = std::chrono::steady_clock::now() - stopped;
  ExpectDeath(148, "Unable to download firmware patchram", end, board.Log(), EvidenceOf(board));
  EXPECT_EQ(board.StackOutput(), "");
  EXPECT_GE(taken, milliseconds(1000)) << "it was not waited for";
  EXPECT_LT(taken, milliseconds(8000)) << "as long as any client may take";
}

// Nothing can be written any more, neither the log nor the crash files.
TEST(CrashReport, FullDisk_DoesNotKeepTheServiceFromEnding) {
  Board board(Mode::kPlain, Plain());
  // The switch is no file on a disk.
  std::filesystem::remove(board.Path("sys/class/rfkill/rfkill0/state"));
  std::filesystem::create_symlink("/dev/null", board.Path("sys/class/rfkill/rfkill0/state"));
  board.Play(Healthy([&](const Bytes& command) {
    if (OpcodeOf(command) != kMinidriver) return false;
    board.pty().WriteToHost(Concat({0x04}, Completion(Plain(), command, 0x0C)));
    return true;
  }));
  // What the service says goes through a pipe, which no limit holds for.
  const std::string pipe = board.Path("log.pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  board.StartService(
      {"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 0; exec \"$0\" >" + pipe + " 2>&1"});
  board.StartStack();
  std::string log;
  const auto drain = [&] {
    char chunk[4096];
    for (ssize_t n; (n = read(reader, chunk, sizeof chunk)) > 0;) {
      log.append(chunk, static_cast<size_t>(n));
    }
  };
  std::optional<ChildResult> end;
  WaitFor([&] {
    drain();
    end = board.service().Wait(milliseconds(0));
    return end.has_value();
  });
  drain();
  close(reader);
  ASSERT_TRUE(end) << log;
  EXPECT_EQ(end->signal, SIGABRT);
  EXPECT_THAT(log, HasSubstr("vendor error code 148, extra info: Unable to download firmware "
                             "patchram\n"));
  EXPECT_TRUE(board.stack()->WaitForOutput("initialize failed\n", kDeadline));
  EXPECT_EQ(board.StackOutput(), RootInflammation(148) + "initialize failed\n");
  // No empty files, but a line that says why.
  EXPECT_TRUE(board.CrashInfos().empty());
  EXPECT_TRUE(board.CoreDumps().empty());
  EXPECT_EQ(CountOf(" is not whole: File too large (27)", log), 2u) << log;
}

// ---- a patch file of any bytes

struct PatchRun {
  std::vector<std::string> commands;
  Ending ending;
  bool ready = false;
};

// What of the file goes out: its whole records. whole: whether nothing is left behind them.
std::vector<std::string> WholeRecords(const std::string& file, bool* whole) {
  std::vector<std::string> records;
  size_t at = 0;
  while (file.size() - at >= 3) {
    const size_t size = 3u + static_cast<uint8_t>(file[at + 2]);
    if (file.size() - at < size) break;
    const std::string record = file.substr(at, size);
    records.push_back(ToHex(Bytes(record.begin(), record.end())));
    at += size;
  }
  *whole = at == file.size();
  return records;
}

TEST(PatchFile, OfRandomBytes_IsSentRecordByRecordUpToTheBrokenOne) {
  const unsigned seed = std::random_device()();
  printf("seed %u\n", seed);
  std::mt19937 random(seed);
  std::vector<WireVector> vectors;
  const auto count = static_cast<size_t>(Count("patch files", 20));
  for (size_t i = 0; i < count; ++i) {
    WireVector vector = Plain();
    vector.chip = i % 2 == 0 ? 0x5A : 0xAA;  // the second one downloads fast
    vector.fast_download = true;
    vector.patch_file.resize(1 + random() % 8000);
    for (char& byte : vector.patch_file) byte = static_cast<char>(random());
    vectors.push_back(vector);
  }
  const auto runs = InParallel<PatchRun>(vectors.size(), [&](size_t i) {
    PatchRun run;
    Board board(Mode::kAccelerated, vectors[i]);
    board.Play([&](const Bytes& command) { return Completion(vectors[i], command); });
    board.StartService();
    WaitFor([&] {
      run.ending.end = board.service().Wait(milliseconds(20));
      run.ready = board.Log().find("BTZVK controller is ready") != std::string::npos;
      return run.ending.end || run.ready;
    });
    bool whole = false;
    const size_t records = WholeRecords(vectors[i].patch_file, &whole).size();
    WaitFor([&] { return board.Commands().size() >= 4 + records; });
    for (const Bytes& command : board.Commands()) run.commands.push_back(ToHex(command));
    run.ending.log = board.Log();
    run.ending.evidence = EvidenceOf(board);
    return run;
  });
  for (size_t i = 0; i < runs.size(); ++i) {
    SCOPED_TRACE("file " + std::to_string(i) + " of seed " + std::to_string(seed));
    bool whole = false;
    const std::vector<std::string> records = WholeRecords(vectors[i].patch_file, &whole);
    std::vector<std::string> sent = runs[i].commands;
    ASSERT_GE(sent.size(), 4 + records.size()) << runs[i].ending.log;
    // Behind reset, chip id, speed and minidriver.
    EXPECT_EQ(std::vector<std::string>(sent.begin() + 4,
                                       sent.begin() + 4 + static_cast<long>(records.size())),
              records);
    EXPECT_EQ(runs[i].ready, whole);
    if (whole) continue;
    EXPECT_EQ(sent.size(), 4 + records.size());
    EXPECT_THAT(runs[i].ending.log, HasSubstr("firmware_download: Failed to read patchram "));
    ExpectDeath(148, "Unable to download firmware patchram", runs[i].ending.end, runs[i].ending.log,
                runs[i].ending.evidence);
  }
}

}  // namespace
}  // namespace test
