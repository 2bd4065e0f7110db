#include "bthal/report_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>

#include <filesystem>

#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "support/wait.h"

namespace test {
namespace {

using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
using testing::HasSubstr;

constexpr char kDumps[] = "/data/vendor/ssrdump";
constexpr char kCoreDumps[] = "/coredump";

std::string FileLike(const std::vector<std::string>& paths, const std::string& name) {
  for (const std::string& path : paths) {
    if (path.find("/" + name) != std::string::npos) return ReadFile(path);
  }
  return "none";
}

}  // namespace

CrashFolders::CrashFolders(const std::string& root) : folder_(root + kDumps) {
  std::filesystem::remove_all(folder_);
  std::filesystem::create_directories(folder_ + kCoreDumps);
}

std::vector<std::string> CrashFolders::CrashInfos() const { return FilesIn(folder_); }

std::vector<std::string> CrashFolders::CoreDumps() const { return FilesIn(folder_ + kCoreDumps); }

std::string CrashFolders::CrashInfoLike(const std::string& name) const {
  return FileLike(CrashInfos(), name);
}

std::string CrashFolders::CoreDumpLike(const std::string& name) const {
  return FileLike(CoreDumps(), name);
}

void WaitForTheNextSecond() {
  const time_t now = time(nullptr);
  WaitFor([&] { return time(nullptr) > now; });
}

void PrintReports() {
  DebugCentral::Get().SetEventSink([](const android::hardware::hidl_vec<uint8_t>& event) {
    printf("sink %s\n", ToHex(ToBytes(event)).c_str());
    fflush(stdout);
  });
}

std::string ExpectReport(int code, const std::string& extra, const ChildRun& run,
                         const CrashFolders& folders) {
  std::string function, message;
  for (const Vector& v : LoadVectors("error_codes.txt")) {
    if (v.name != std::to_string(code)) continue;
    function = v.fields[0];
    message = v.fields[1];
  }
  char event[32];
  snprintf(event, sizeof event, "sink FF 04 58 05 00 %02X\n", static_cast<unsigned>(code));
  EXPECT_EQ(run.result.signal, SIGABRT);
  EXPECT_THAT(run.output, HasSubstr(event));
  EXPECT_THAT(run.output, HasSubstr("Bluetooth HAL crash with error code 0, vendor error code " +
                                    std::to_string(code) + ", extra info: " + extra + "\n"));
  // The frame's name is mangled: length and name, then its one argument, a string.
  EXPECT_THAT(run.output, HasSubstr(std::to_string(function.size()) + function + "ENSt"));
  const std::vector<std::string> infos = folders.CrashInfos(), cores = folders.CoreDumps();
  EXPECT_EQ(infos.size(), 1u);
  EXPECT_EQ(cores.size(), 1u);
  if (infos.empty() || cores.empty()) return "";
  EXPECT_THAT(ReadFile(infos[0]), HasSubstr("crash_reason: " + message + "\n"));
  const std::string core = ReadFile(cores[0]);
  EXPECT_THAT(core, HasSubstr("DUMP REASON: " + message + " - occurred at "));
  return core;
}

}  // namespace test
