// What a daemon has from its start: log file, lock, tombstones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/test_root.h"
#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace {

using test::ChildProcess;
using test::kDeadline;
using test::ReadFile;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class Daemon : public testing::Test {
 protected:
  ChildProcess Start(std::vector<std::string> arguments,
                     std::map<std::string, std::string> environment = {}) {
    arguments.insert(arguments.begin(), test::TestProgram("platform_test_daemon"));
    environment.emplace("BTHAL_ROOT", root_.path());
    return ChildProcess(arguments, environment);
  }

  const test::TempDir root_;
  const std::string log_ = root_ / "run/bthal/log";
};

TEST_F(Daemon, Log_HoldsLinesInOneForm) {
  ChildProcess daemon = Start({"idle"});
  ASSERT_TRUE(daemon.WaitForOutput("ready", kDeadline));
  const std::string text = ReadFile(log_);
  EXPECT_THAT(text, ContainsRegex("20[0-9][0-9]-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:"
                                  "[0-5][0-9]\\.[0-9]{3} +[0-9]+ +[0-9]+ I test.daemon: mode "
                                  "idle\n"));
  EXPECT_THAT(text, HasSubstr(" W test.daemon: a warning with 17\n"));
  EXPECT_THAT(text, HasSubstr(" E test.daemon: two\n"));
  EXPECT_THAT(text, HasSubstr(" E test.daemon: lines\n"));
  EXPECT_THAT(text, Not(HasSubstr("not to be seen")));
  EXPECT_THAT(daemon.Output(), HasSubstr(" W test.daemon: a warning with 17\n"));

  std::filesystem::remove(log_);  // it is made again
  daemon.Signal(SIGUSR1);
  EXPECT_TRUE(test::WaitFor([&] { return ReadFile(log_).find("a signal") != std::string::npos; }));
}

TEST_F(Daemon, LogForTheJournal_HasLevelsAndTagsOnly) {
  const std::string program = test::TestProgram("platform_test_daemon");
  ChildProcess daemon({"sh", "-c", "JOURNAL_STREAM=$(stat -Lc %d:%i /dev/stderr) exec " + program},
                      {{"BTHAL_ROOT", root_.path()}});
  ASSERT_TRUE(daemon.WaitForOutput("ready", kDeadline));
  EXPECT_THAT(daemon.Output(),
              HasSubstr("<6>test.daemon: mode idle\n<4>test.daemon: a warning with "
                        "17\n<3>test.daemon: two\n<3>test.daemon: lines\n"));
  EXPECT_THAT(ReadFile(log_), HasSubstr(" W test.daemon: a warning with 17\n"));
}

TEST_F(Daemon, LogLevel_IsThatOfTheVariable) {
  const struct {
    const char* level;
    std::vector<std::string> seen;
    std::vector<std::string> unseen;
  } rows[] = {{"E", {"two"}, {"a warning"}},
              {"debug", {" D test.daemon: not to be seen"}, {}},
              {"loud", {"not a log level: \"loud\"", " I test.daemon: mode idle"}, {" D "}}};
  for (const auto& row : rows) {
    ChildProcess daemon = Start({"idle"}, {{"BTHAL_LOG", row.level}});
    ASSERT_TRUE(daemon.WaitForOutput("ready", kDeadline));
    for (const std::string& text : row.seen) EXPECT_THAT(daemon.Output(), HasSubstr(text));
    for (const std::string& text : row.unseen) EXPECT_THAT(daemon.Output(), Not(HasSubstr(text)));
  }
}

TEST_F(Daemon, Log_IsBoundedToTwoFiles) {
  std::string output;
  const test::ChildResult result =
      test::Run({test::TestProgram("platform_test_daemon"), "log", "4000"}, &output,
                {{"BTHAL_ROOT", root_.path()}});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_LE(std::filesystem::file_size(log_), size_t{1} << 20);
  EXPECT_LE(std::filesystem::file_size(log_ + ".1"), size_t{1} << 20);
  EXPECT_THAT(ReadFile(log_), HasSubstr("line 3999"));
  const std::string older = ReadFile(log_ + ".1");
  EXPECT_EQ(older.substr(older.size() - 4), "xxx\n") << "a line was cut at the change of files";
}

TEST_F(Daemon, StandardErrorThatNobodyReads_HoldsNothingUp) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);  // which the daemon inherits
  const ChildProcess daemon({"sh", "-c",
                             "exec " + test::TestProgram("platform_test_daemon") + " log 300 2>&" +
                                 std::to_string(pipe_ends[1])},
                            {{"BTHAL_ROOT", root_.path()}});
  EXPECT_TRUE(test::WaitFor([&] { return ReadFile(log_).find("line 299") != std::string::npos; }));
  for (const int end : pipe_ends) close(end);
}

// A link in the place of a file that the daemon writes: what it points at stays as it is. What the
// daemon cannot do without ends it, with a line.
TEST_F(Daemon, PlantedLinks_AreNotFollowed) {
  const std::string victim = root_ / "victim";
  const struct {
    const char* path;
    const char* mode;
    const char* output;
    const char* kept;  // in the file that takes the link's place
  } rows[] = {
      {"run/bthal/log", "idle", "Too many levels of symbolic links", nullptr},
      {"run/bthal/lock", "idle", "Too many levels of symbolic links", nullptr},
      {"run/bthal/wake_locks", "wake", "ready", "a_lock\n"},
      {"data/property/persistent.prop.new", "property", "ready", nullptr},
      {"data/tombstones/tombstone_00", "fatal", "tombstone_01", nullptr},
  };
  for (const auto& row : rows) {
    for (const bool dangling : {false, true}) {
      SCOPED_TRACE(row.path);
      const std::filesystem::path link = root_ / row.path;
      std::filesystem::create_directories(link.parent_path());
      std::filesystem::remove(link);
      std::filesystem::create_symlink(victim, link);
      if (!dangling) test::WriteFile(victim, "precious");
      ChildProcess daemon = Start({row.mode});
      EXPECT_TRUE(daemon.WaitForOutput(row.output, kDeadline)) << daemon.Output();
      EXPECT_EQ(std::filesystem::exists(victim), !dangling);
      EXPECT_TRUE(dangling || ReadFile(victim) == "precious");
      EXPECT_TRUE(row.kept == nullptr || ReadFile(link) == row.kept);
      std::filesystem::remove_all(root_ / "run");
      std::filesystem::remove_all(root_ / "data");
      std::filesystem::remove(victim);
    }
  }
}

TEST_F(Daemon, WakeLockOfAKilledOne_IsReleasedByTheNextAndOnce) {
  const std::string unlocked = root_ / "sys/power/wake_unlock";
  test::WriteFile(root_ / "sys/power/wake_lock", "");
  test::WriteFile(unlocked, "");
  ChildProcess first = Start({"wake"});
  ASSERT_TRUE(first.WaitForOutput("ready", kDeadline));
  EXPECT_EQ(ReadFile(unlocked), "");
  first.Signal(SIGKILL);
  first.Wait(kDeadline);
  for (int start = 0; start < 2; ++start) {
    ChildProcess next = Start({"idle"});
    EXPECT_TRUE(next.WaitForOutput("ready", kDeadline));
    EXPECT_EQ(ReadFile(unlocked), start == 0 ? "a_lock" : "");
    test::WriteFile(unlocked, "");
  }
}

TEST_F(Daemon, FatalSignal_LeavesTombstoneThatNamesFunctionBesideOlderOnes) {
  test::WriteFile(root_ / "data/tombstones/tombstone_00", "older");
  const struct {
    const char* mode;
    int signal;
    const char* file;
    std::vector<const char*> content;
  } rows[] = {{"fatal",
               SIGABRT,
               "data/tombstones/tombstone_01",
               {"signal 6 (SIGABRT)", "Abort message: 'the reason of the end'", "FatalErrorNamed"}},
#ifndef BTHAL_SANITIZED  // which take this signal themselves
              {"segv",
               SIGSEGV,
               "data/tombstones/tombstone_02",
               {"signal 11 (SIGSEGV)", "#00 pc ", "ReadThroughNull", "daemon_program.cpp"}}
#endif
  };
  for (const auto& row : rows) {
    ChildProcess daemon = Start({row.mode});
    const auto result = daemon.Wait(kDeadline);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->signal, row.signal);
    const std::string tombstone = ReadFile(root_ / row.file);
    EXPECT_THAT(tombstone, HasSubstr("pid: " + std::to_string(daemon.pid())));
    for (const char* text : row.content) EXPECT_THAT(tombstone, HasSubstr(text));
  }
  EXPECT_EQ(ReadFile(root_ / "data/tombstones/tombstone_00"), "older");
  EXPECT_THAT(ReadFile(log_), HasSubstr(" F test.daemon: the reason of the end\n"));
}

}  // namespace
