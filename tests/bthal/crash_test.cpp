#include <android-base/file.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "bthal/child_case.h"
#include "bthal/log_capture.h"
#include "bthal/report_check.h"
#include "debug_central.h"
#include "evidence/crash_dump.h"
#include "stack_trace_helper.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug;
using android::hardware::hidl_vec;
using test::CrashRoot;
using testing::HasSubstr;
using testing::Not;

// Arguments: code, extra text.
CHILD_CASE(Report) {
  test::PrintReports();
  DebugCentral::Get().ReportBqrError(static_cast<BqrErrorCode>(std::stoi(arguments[0])),
                                     arguments[1]);
  printf("returned\n");
  return 0;
}

// The record holds 127 characters of what the reporter adds, the abort message all of them.
TEST(FatalErrors, EachCode_EndsTheProcessInItsOwnFunction) {
  const std::vector<test::Vector> codes = test::LoadVectors("error_codes.txt");
  EXPECT_EQ(codes.size(), 53u);
  const std::string recorded(127, 'x'), extra = recorded + "tail";
  std::vector<CrashRoot> roots(codes.size());
  const auto report = [&](size_t i) {
    return test::StartChild("Report", roots[i].path(), {codes[i].name, extra});
  };
  test::RunSideBySide(codes.size(), report, [&](size_t i, const test::ChildRun& run) {
    const std::string& code = codes[i].name;
    const std::string& message = codes[i].fields[1];
    SCOPED_TRACE(code);
    EXPECT_THAT(run.output, Not(HasSubstr("returned")));
    const bool killed = code == "32" || code == "127";
    const bool silent = message == "-";
    if (silent) {
      EXPECT_THAT(run.output, Not(HasSubstr("sink")));
    } else {
      EXPECT_THAT(run.output, HasSubstr("ReportBqrError: root inflamed event with reason: " +
                                        message + " (" + code + ")"));
    }
    if (!killed && !silent) {
      const std::string core = test::ExpectReport(std::stoi(code), extra, run, roots[i]);
      EXPECT_THAT(core, HasSubstr("\nController Firmware Information\n"));
      EXPECT_THAT(core, HasSubstr(": " + recorded + "\n"));
      EXPECT_THAT(core, HasSubstr("Debugfs:dev/logbuffer_btlpm\n")) << "the transport's part";
      return;
    }
    EXPECT_EQ(run.result.signal, killed ? SIGKILL : SIGABRT) << run.output;
    if (killed) {
      const auto byte = static_cast<uint8_t>(std::stoi(code));
      EXPECT_THAT(run.output, HasSubstr("sink FF 04 58 05 00 " + test::ToHex({byte}) + "\n"));
    }
    EXPECT_TRUE(roots[i].CrashInfos().empty());
    EXPECT_TRUE(roots[i].CoreDumps().empty());
    EXPECT_THAT(run.output, Not(HasSubstr("Bluetooth HAL crash")));
  });
}

// Without a stack's function the process ends all the same, and before any file is written.
CHILD_CASE(ReportWithoutSink) {
  DebugCentral::Get().ReportBqrError(BqrErrorCode::HostDownloadFw, "");
  return 0;
}

// Argument: code. A code without a row aborts in LogFatal itself.
CHILD_CASE(LogFatal) {
  LogFatal(static_cast<BqrErrorCode>(std::stoi(arguments[0])), "");
  return 0;
}

// Nothing that the stack does may hold up the end of the process.
CHILD_CASE(ReportToStuckStack) {
  DebugCentral::Get().SetEventSink([](const hidl_vec<uint8_t>&) {
    for (;;) pause();
  });
  DebugCentral::Get().ReportBqrError(BqrErrorCode::HostDownloadFw, "");
  return 0;
}

// The first report decides; others wait for the end with it.
CHILD_CASE(ReportFromManyThreads) {
  test::PrintReports();
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back(
        [] { DebugCentral::Get().ReportBqrError(BqrErrorCode::HostInvalidHciEvent, ""); });
  }
  for (std::thread& thread : threads) thread.join();
  return 0;
}

TEST(FatalErrors, WhateverTheStackDoes_TheProcessEnds) {
  const struct {
    const char* name;
    test::Arguments arguments;
    const char* text;
    size_t files;
  } cases[] = {
      {"ReportWithoutSink", {}, "", 0},
      {"LogFatal", {"5"}, "Bluetooth HAL crash with error code 0, vendor error code 5\n", 0},
      // No report gets as far as the functions of these three; their symbols are there all the
      // same.
      {"LogFatal", {"32"}, "FirmwareMiscellaneousMajorFaultENSt", 0},
      {"LogFatal", {"127"}, "SocBigHammerFaultENSt", 0},
      {"LogFatal", {"151"}, "HostCoexDeviceOpenErrorENSt", 0},
      {"ReportToStuckStack", {}, "vendor error code 148\n", 1},
      {"ReportFromManyThreads", {}, "vendor error code 130\n", 1},
      // A code that no row has: the look-up ends it.
      {"Report", {"250", ""}, "", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CrashRoot root;
    const test::ChildRun run = test::RunChild(c.name, root.path(), c.arguments);
    EXPECT_EQ(run.result.signal, SIGABRT);
    EXPECT_THAT(run.output, HasSubstr(c.text));
    EXPECT_EQ(root.CrashInfos().size(), c.files);
    EXPECT_EQ(root.CoreDumps().size(), c.files);
  }
}

TEST(CrashDump, IsWrittenOnceACycle) {
  const test::CrashFolders root(test::RootFolder());
  CrashDump dump([] { return "HAL log\n"; });
  dump.SetTransportDump([](int fd) { android::base::WriteStringToFd("transport\n", fd); });
  test::LogCapture log;
  dump.Start("FirstReason");
  dump.Start("FirstReasonAgain");
  EXPECT_THAT(log.Take("bthal.debug_central"),
              testing::Contains(HasSubstr("start_crash_dump: coredump has already been generated, "
                                          "skipping reason: FirstReasonAgain")));
  dump.Rearm();
  test::WaitForTheNextSecond();
  dump.Start("SecondReason");
  const std::vector<std::string> infos = root.CrashInfos(), cores = root.CoreDumps();
  ASSERT_EQ(infos.size(), 2u);
  ASSERT_EQ(cores.size(), 2u);
  const char* reasons[] = {"FirstReason", "SecondReason"};
  for (size_t i = 0; i < 2; ++i) {
    const std::string name = infos[i].substr(infos[i].rfind('/') + 1);
    ASSERT_THAT(name,
                testing::MatchesRegex("crashinfo_bt_2[-0-9]{9}_[0-9]{2}(-[0-9]{2}){2}\\.txt"));
    const std::string stamp = name.substr(13, 19);
    EXPECT_THAT(cores[i], testing::EndsWith("/coredump_bt_" + stamp + ".bin"));
    std::string expected = test::LoadExpected("crashinfo.txt");
    expected = test::Replaced(expected, "@REASON@", reasons[i]);
    expected = test::Replaced(expected, "@COUNT@", std::to_string(i + 1));
    expected = test::Replaced(expected, "@STAMP@", stamp);
    EXPECT_EQ(test::ReadFile(infos[i]), expected);
    const std::string core = test::ReadFile(cores[i]);
    EXPECT_THAT(core, testing::StartsWith(std::string("DUMP REASON: ") + reasons[i] +
                                          " - occurred at " + stamp + "\nHAL log\n"));
    EXPECT_THAT(core, testing::EndsWith("transport\n"));
    for (const std::string& path : {infos[i], cores[i]}) {
      struct stat status {};
      ASSERT_EQ(stat(path.c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 0777, 0444u) << path;
    }
  }
}

}  // namespace
