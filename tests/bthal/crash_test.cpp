#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "stack_trace_helper.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug;
using android::hardware::hidl_vec;
using testing::HasSubstr;
using testing::Not;

constexpr char kDumps[] = "/data/vendor/ssrdump/";
constexpr char kCoreDumps[] = "/data/vendor/ssrdump/coredump/";

std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.is_regular_file()) names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// A root folder with the folders of the crash files.
struct CrashRoot : test::TempDir {
  CrashRoot() { std::filesystem::create_directories(path() + kCoreDumps); }
  std::vector<std::string> CrashInfos() const { return FilesIn(path() + kDumps); }
  std::vector<std::string> CoreDumps() const { return FilesIn(path() + kCoreDumps); }
};

void PrintEvent(const hidl_vec<uint8_t>& event) {
  printf("sink %s\n", test::ToHex(test::ToBytes(event)).c_str());
  fflush(stdout);
}

// Arguments: code, extra text.
CHILD_CASE(Report) {
  DebugCentral::Get().SetEventSink(PrintEvent);
  DebugCentral::Get().ReportBqrError(static_cast<BqrErrorCode>(std::stoi(arguments[0])),
                                     arguments[1]);
  printf("returned\n");
  return 0;
}

TEST(FatalErrors, EachCode_EndsTheProcessInItsOwnFunction) {
  const std::vector<test::Vector> codes = test::LoadVectors("error_codes.txt");
  EXPECT_EQ(codes.size(), 53u);
  // A few at a time.
  constexpr size_t kAtOnce = 4;
  for (size_t first = 0; first < codes.size(); first += kAtOnce) {
    std::vector<std::unique_ptr<CrashRoot>> roots;
    std::vector<std::unique_ptr<test::ChildProcess>> children;
    const size_t end = std::min(first + kAtOnce, codes.size());
    for (size_t i = first; i < end; ++i) {
      roots.push_back(std::make_unique<CrashRoot>());
      children.push_back(
          test::StartChild("Report", roots.back()->path(), {codes[i].name, "more to say"}));
    }
    for (size_t i = first; i < end; ++i) {
      const std::string& code = codes[i].name;
      const std::string& function = codes[i].fields[0];
      const std::string& message = codes[i].fields[1];
      SCOPED_TRACE(code + " " + function);
      const test::ChildResult result =
          children[i - first]->Wait(test::kDeadline).value_or(test::ChildResult{});
      const std::string output = children[i - first]->Output();
      const CrashRoot& root = *roots[i - first];
      char event[32];
      snprintf(event, sizeof event, "sink FF 04 58 05 00 %02X\n", std::stoi(code));
      EXPECT_THAT(output, Not(HasSubstr("returned")));
      const bool killed = code == "32" || code == "127";
      const bool silent = message == "-";
      EXPECT_EQ(result.signal, killed ? SIGKILL : SIGABRT) << output;
      if (silent) {
        EXPECT_THAT(output, Not(HasSubstr("sink")));
      } else {
        EXPECT_THAT(output, HasSubstr(event));
        EXPECT_THAT(output, HasSubstr("ReportBqrError: root inflamed event with reason: " +
                                      message + " (" + code + ")"));
      }
      if (killed || silent) {
        EXPECT_TRUE(root.CrashInfos().empty());
        EXPECT_TRUE(root.CoreDumps().empty());
        EXPECT_THAT(output, Not(HasSubstr("Bluetooth HAL crash")));
        continue;
      }
      EXPECT_THAT(output, HasSubstr("Bluetooth HAL crash with error code 0, vendor error code " +
                                    code + ", extra info: more to say\n"));
      // The frame's name is mangled: length and name, then its one argument, a string.
      EXPECT_THAT(output, HasSubstr(std::to_string(function.size()) + function + "ENSt"));
      ASSERT_EQ(root.CrashInfos().size(), 1u);
      ASSERT_EQ(root.CoreDumps().size(), 1u);
      EXPECT_THAT(test::ReadFile(root.path() + kDumps + root.CrashInfos()[0]),
                  HasSubstr("crash_reason: " + message + "\n"));
    }
  }
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
  DebugCentral::Get().SetEventSink([](const hidl_vec<uint8_t>& event) {
    PrintEvent(event);
    for (;;) pause();
  });
  DebugCentral::Get().ReportBqrError(BqrErrorCode::HostDownloadFw, "");
  return 0;
}

// The first report decides; others wait for the end with it.
CHILD_CASE(ReportFromManyThreads) {
  DebugCentral::Get().SetEventSink(PrintEvent);
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

// The record holds 127 characters, the abort message all of them.
TEST(FatalErrors, LongExtraText_IsCutInTheRecordOnly) {
  CrashRoot root;
  const std::string extra(127, 'x'), tail = "tail";
  const test::ChildRun run = test::RunChild("Report", root.path(), {"148", extra + tail});
  EXPECT_THAT(run.output, HasSubstr(", extra info: " + extra + tail + "\n"));
  ASSERT_EQ(root.CoreDumps().size(), 1u);
  const std::string core = test::ReadFile(root.path() + kCoreDumps + root.CoreDumps()[0]);
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
    ASSERT_TRUE(test::HasShape(infos[i], "crashinfo_bt_####-##-##_##-##-##.txt")) << infos[i];
    const std::string stamp = infos[i].substr(13, 19);
    EXPECT_EQ(cores[i], "coredump_bt_" + stamp + ".bin");
    std::string expected = test::LoadExpected("crashinfo.txt");
    expected = test::Replaced(expected, "@REASON@", reasons[i]);
    expected = test::Replaced(expected, "@COUNT@", std::to_string(i + 1));
    expected = test::Replaced(expected, "@STAMP@", stamp);
    const std::string info_path = root.path() + kDumps + infos[i];
    EXPECT_EQ(test::ReadFile(info_path), expected);
    const std::string core_path = root.path() + kCoreDumps + cores[i];
    const std::string core = test::ReadFile(core_path);
    const std::string head = std::string("DUMP REASON: ") + reasons[i] + " - occurred at " + stamp +
                             "\n" + std::string(45, '=') + "\nController Firmware Information\n";
    EXPECT_EQ(core.substr(0, head.size()), head);
    EXPECT_THAT(core, HasSubstr(": a record before the crash\n"));
    // The transport's own files end it.
    EXPECT_THAT(core, HasSubstr("Debugfs:dev/logbuffer_btlpm\n"));
    for (const std::string& path : {info_path, core_path}) {
      struct stat status {};
      ASSERT_EQ(stat(path.c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 0777, 0444u) << path;
    }
  }
}

CHILD_CASE(DumpOnce) {
  DebugCentral::Get().start_crash_dump("Reason");
  return 0;
}

TEST(CrashDump, FoldersThatAreMissing_AreNamedInOneLine) {
  test::TempDir empty;
  test::ChildRun run = test::RunChild("DumpOnce", empty.path());
  EXPECT_EQ(run.result.exit_code, 0);
  EXPECT_THAT(run.output, HasSubstr("start_crash_dump: Failed to open coredump file: "
                                    "/data/vendor/ssrdump/coredump/coredump_bt_"));
  EXPECT_THAT(run.output, HasSubstr("failed: No such file or directory (2)"));
  EXPECT_THAT(run.output, Not(HasSubstr("crashinfo file")));
}

// A hardware error reported by the controller writes the files and is passed on to the stack.
CHILD_CASE(HardwareError) {
  test::UartRig rig;
  if (!rig.Open()) return 1;
  DebugCentral::Get().StartMonitor(rig.flow().get());
  rig.DeliverEvent({0x10, 0x01, 0x2A});
  return rig.TakeReceived().size() == 1 ? 0 : 2;
}

TEST(CrashDump, HardwareErrorEvent_WritesTheFilesAndReachesTheStack) {
  CrashRoot root;
  test::WriteConfiguration(root.path());
  const test::ChildRun run = test::RunChild("HardwareError", root.path());
  EXPECT_EQ(run.result.exit_code, 0);
  EXPECT_THAT(run.output, HasSubstr("Error code=2A"));
  ASSERT_EQ(root.CrashInfos().size(), 1u);
  EXPECT_THAT(test::ReadFile(root.path() + kDumps + root.CrashInfos()[0]),
              HasSubstr("crash_reason: ControllerHwError\n"));
  ASSERT_EQ(root.CoreDumps().size(), 1u);
  EXPECT_THAT(test::ReadFile(root.path() + kCoreDumps + root.CoreDumps()[0]),
              HasSubstr(": operator(): Received Hardware error event!\n"));
}

TEST(CrashDump, MonitorWithoutFlowControl_IsRefused) {
  testing::internal::CaptureStderr();
  DebugCentral::Get().StartMonitor(nullptr);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("StartMonitor: Invalid handle!"));
}

}  // namespace
