#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "bthal/child_case.h"
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

TEST(FatalErrors, EachCode_EndsTheProcessInItsOwnFunction) {
  const std::vector<test::Vector> codes = test::LoadVectors("error_codes.txt");
  EXPECT_EQ(codes.size(), 53u);
  std::vector<CrashRoot> roots(codes.size());
  const auto report = [&](size_t i) {
    return test::StartChild("Report", roots[i].path(), {codes[i].name, "more to say"});
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
      test::ExpectReport(std::stoi(code), "more to say", run, roots[i]);
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

// No report gets as far as the functions of these three; their symbols are there all the same.
TEST(FatalErrors, CodesWhoseReportsEndEarlier_HaveAFunctionToo) {
  for (const test::Vector& v : test::LoadVectors("error_codes.txt")) {
    if (v.name != "32" && v.name != "127" && v.name != "151") continue;
    SCOPED_TRACE(v.fields[0]);
    CrashRoot root;
    const test::ChildRun run = test::RunChild("LogFatal", root.path(), {v.name});
    EXPECT_EQ(run.result.signal, SIGABRT);
    EXPECT_THAT(run.output, HasSubstr("vendor error code " + v.name + "\n"));
    EXPECT_THAT(run.output, HasSubstr(std::to_string(v.fields[0].size()) + v.fields[0] + "ENSt"));
  }
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

// No thread can be made any more: none has a stack of this size.
CHILD_CASE(ReportWithoutThreads) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, size_t{1} << 46);
  pthread_setattr_default_np(&attributes);
  test::PrintReports();
  DebugCentral::Get().ReportBqrError(BqrErrorCode::HostDownloadFw, "");
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
      {"ReportToStuckStack", {}, "vendor error code 148\n", 1},
      {"ReportFromManyThreads", {}, "vendor error code 130\n", 1},
      {"ReportWithoutThreads", {}, "vendor error code 148\n", 1},
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

// The record holds 127 characters, the abort message all of them.
TEST(FatalErrors, LongExtraText_IsCutInTheRecordOnly) {
  CrashRoot root;
  const std::string extra(127, 'x'), tail = "tail";
  const test::ChildRun run = test::RunChild("Report", root.path(), {"148", extra + tail});
  EXPECT_THAT(run.output, HasSubstr(", extra info: " + extra + tail + "\n"));
  ASSERT_EQ(root.CoreDumps().size(), 1u);
  const std::string core = test::ReadFile(root.CoreDumps()[0]);
  EXPECT_THAT(core, HasSubstr(": " + extra + "\n"));
  EXPECT_THAT(core, Not(HasSubstr(extra + "t")));
}

// Arguments: none. Four reasons, two enable cycles.
CHILD_CASE(DumpTwice) {
  DebugCentral& central = DebugCentral::Get();
  central.UpdateRecord(AnchorType::kClose, "a record before the crash");
  central.start_crash_dump("FirstReason");
  central.start_crash_dump("FirstReasonAgain");
  central.StopMonitor();
  // File names have seconds: the second pair is to get names of its own.
  const time_t start = time(nullptr);
  test::WaitFor([&] { return time(nullptr) > start; });
  central.start_crash_dump("SecondReason");
  return 0;
}

TEST(CrashDump, IsWrittenOnceACycle) {
  CrashRoot root;
  const test::ChildRun run = test::RunChild("DumpTwice", root.path());
  ASSERT_EQ(run.result.exit_code, 0);
  EXPECT_THAT(run.output, HasSubstr("start_crash_dump: coredump has already been generated, "
                                    "skipping reason: FirstReasonAgain"));
  const std::vector<std::string> infos = root.CrashInfos(), cores = root.CoreDumps();
  ASSERT_EQ(infos.size(), 2u);
  ASSERT_EQ(cores.size(), 2u);
  const char* reasons[] = {"FirstReason", "SecondReason"};
  for (size_t i = 0; i < 2; ++i) {
    const std::string name = infos[i].substr(infos[i].rfind('/') + 1);
    ASSERT_TRUE(test::HasShape(name, "crashinfo_bt_####-##-##_##-##-##.txt")) << name;
    const std::string stamp = name.substr(13, 19);
    EXPECT_THAT(cores[i], testing::EndsWith("/coredump_bt_" + stamp + ".bin"));
    std::string expected = test::LoadExpected("crashinfo.txt");
    expected = test::Replaced(expected, "@REASON@", reasons[i]);
    expected = test::Replaced(expected, "@COUNT@", std::to_string(i + 1));
    expected = test::Replaced(expected, "@STAMP@", stamp);
    EXPECT_EQ(test::ReadFile(infos[i]), expected);
    const std::string core = test::ReadFile(cores[i]);
    const std::string head = std::string("DUMP REASON: ") + reasons[i] + " - occurred at " + stamp +
                             "\n" + std::string(45, '=') + "\nController Firmware Information\n";
    EXPECT_EQ(core.substr(0, head.size()), head);
    EXPECT_THAT(core, HasSubstr(": a record before the crash\n"));
    // The transport's own files end it.
    EXPECT_THAT(core, HasSubstr("Debugfs:dev/logbuffer_btlpm\n"));
    for (const std::string& path : {infos[i], cores[i]}) {
      struct stat status {};
      ASSERT_EQ(stat(path.c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 0777, 0444u) << path;
    }
  }
}

TEST(CrashDump, FoldersThatAreMissing_AreNamedInOneLine) {
  test::TempDir empty;
  const test::ChildRun run = test::RunChild("Report", empty.path(), {"148", ""});
  EXPECT_EQ(run.result.signal, SIGABRT);
  EXPECT_THAT(run.output, HasSubstr("start_crash_dump: Failed to open coredump file: "
                                    "/data/vendor/ssrdump/coredump/coredump_bt_"));
  EXPECT_THAT(run.output, HasSubstr("failed: No such file or directory (2)"));
  EXPECT_THAT(run.output, Not(HasSubstr("crashinfo file")));
}

// Argument: the bytes that a file may have. The log goes to a pipe, which may have more.
CHILD_CASE(DumpToFullDisk) {
  signal(SIGXFSZ, SIG_IGN);
  android::base::unique_fd out, in, log(dup(STDERR_FILENO));
  if (!android::base::Pipe(&out, &in)) return 1;
  dup2(in.get(), STDERR_FILENO);
  rlimit limit{std::stoul(arguments[0]), RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &limit);
  CrashDump dump([] { return std::string(200, 'r'); });
  dump.Start("FullDisk");
  const hidl_vec<uint8_t> fragment = {0xFF, 0x03, 0x58, 0x13, 0x00};
  for (int i = 0; i < 50; ++i) dump.AppendToControllerDump(fragment);
  limit.rlim_cur = RLIM_INFINITY;
  setrlimit(RLIMIT_FSIZE, &limit);
  dup2(log.get(), STDERR_FILENO);
  in.reset();
  std::string text;
  android::base::ReadFdToString(out, &text);
  return android::base::WriteStringToFd(text, log) ? 0 : 1;
}

TEST(CrashDump, FileThatCannotBeWrittenWhole_IsOneLineAndNotLeftEmpty) {
  const struct {
    const char* limit;
    size_t core_dumps;   // and dumps of the controller that are left
    size_t crash_infos;  // whole, where there is one
  } cases[] = {{"0", 0, 0}, {"120", 2, 1}};
  const auto not_whole = [](const std::string& path) {
    return "start_crash_dump: /data/vendor/ssrdump/" + path;
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.limit);
    CrashRoot root;
    const std::string log = test::RunChild("DumpToFullDisk", root.path(), {c.limit}).output;
    EXPECT_EQ(root.CoreDumps().size(), c.core_dumps);
    EXPECT_EQ(root.CrashInfos().size(), c.crash_infos);
    EXPECT_EQ(test::CountOf(not_whole("coredump/coredump_bt_"), log), 1u) << log;
    EXPECT_EQ(test::CountOf(not_whole("crashinfo_bt_"), log), 1 - c.crash_infos) << log;
    // One line for the dump of the controller, however many fragments it has.
    EXPECT_EQ(test::CountOf(" is not whole: File too large (27)\n", log), 3 - c.crash_infos) << log;
  }
}

TEST(CrashDump, MonitorWithoutFlowControl_IsRefused) {
  testing::internal::CaptureStderr();
  DebugCentral::Get().StartMonitor(nullptr);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("StartMonitor: Invalid handle!"));
}

}  // namespace
