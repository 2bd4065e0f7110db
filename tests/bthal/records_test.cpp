#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bthal/child_case.h"
#include "bthal/log_capture.h"
#include "bthal/uart_rig.h"
#include "debug_central.h"
#include "evidence/anchor_records.h"
#include "evidence/debug_files.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug;
using test::Written;
using testing::ElementsAre;
using testing::HasSubstr;

std::string DumpedHalLog() {
  return Written([](int fd) { DebugCentral::Get().dump_hal_log(fd); });
}

// Records whose text is made when they are read.
std::string Numbered(const AnchorValues& values) { return "number " + std::to_string(values[0]); }

TEST(Records, HistoryKeepsTheLast400InOrder) {
  AnchorRecords records;
  for (uint32_t i = 0; i < 400; ++i) records.Add(AnchorType::kClose, std::to_string(i));
  EXPECT_EQ(records.History().front().text, "0");
  records.Add(AnchorType::kClose, "400");
  ASSERT_EQ(records.History().size(), 400u);
  EXPECT_EQ(records.History().front().text, "1");
  for (uint32_t i = 401; i < 1000; ++i) {
    records.Add(AnchorType::kSendAclData, Numbered, {i, 0, 0}, " [ IN]");
  }
  const std::vector<AnchorRecords::Line> history = records.History();
  ASSERT_EQ(history.size(), 400u);
  for (uint32_t i = 0; i < 400; ++i) {
    EXPECT_EQ(history[i].text, "number " + std::to_string(600 + i) + " [ IN]");
  }
}

// A scope without a name leaves no record at its end, but one (" [ IN]") at its start.
// In a process of its own: no other records are to be there.
CHILD_CASE(DumpFourRecords) {
  DebugCentral& central = DebugCentral::Get();
  central.UpdateRecord(AnchorType::kClose, "oldest");
  { const DebugAnchor anchor(AnchorType::kInitialize, "a scope", central); }
  { const DebugAnchor nameless(AnchorType::kPerformInit, "", central); }
  central.UpdateRecord(AnchorType::kClose, "newest");
  test::WriteFile(arguments[0], DumpedHalLog());
  return 0;
}

TEST(Records, HalLog_IsExact) {
  test::TempDir root;
  const std::string out = root / "out.txt";
  ASSERT_EQ(test::RunChild("DumpFourRecords", root.path(), {out}).result.exit_code, 0);
  EXPECT_EQ(test::WithoutTimes(test::ReadFile(out)), test::LoadExpected("hal_log.txt"));
}

TEST(DebugFiles, KernelLogBuffer_IsFramedOrReportedUnreadable) {
  test::WriteFile(test::RootFolder() + "/dev/logbuffer_x", "line 1\nline 2\n");
  for (const std::string path : {"/dev/logbuffer_x", "dev/logbuffer_x", "/dev/absent", ""}) {
    const bool readable = path.find("_x") != std::string::npos;
    EXPECT_EQ(Written([&](int fd) { dump_debugfs_to_fd(fd, path); }),
              test::Replaced(
                  test::LoadExpected(readable ? "debugfs_readable.txt" : "debugfs_missing.txt"),
                  "@PATH@", path));
  }
}

TEST(DebugFiles, DumpFiles_AreTextOrHexadecimalByTheirName) {
  const std::string text = "text of a dump";
  const std::string bytes("\x00\x01\x0a\x0d\x7f\x80\xfe\xff\x41\x42\x00", 11);
  const struct {
    std::string prefix, name;
    bool hex;
  } cases[] = {{"crashinfo_bt_", "1.txt", false},
               {"coredump_bt_", "1.bin", false},
               {"coredump_bt_", "socdump_1.bin", true},
               {"coredump_bt_", "chredump_1.bin", true},
               // Only ".bin" files are binary.
               {"coredump_bt_", "socdump_1.txt", false}};
  for (const auto& c : cases) {
    const std::string name = c.prefix + c.name, folder = "/data/sscd_" + name + "/";
    test::WriteFile(test::RootFolder() + folder + name, c.hex ? bytes : text);
    // Neither of these is shown: another prefix, no regular file.
    test::WriteFile(test::RootFolder() + folder + "other.txt", text);
    test::WriteFile(test::RootFolder() + folder + c.prefix + "folder/file", text);
    EXPECT_EQ(Written([&](int fd) { collect_sscd_logs(fd, c.prefix, folder); }),
              test::Replaced(test::LoadExpected(c.hex ? "sscd_hex.txt" : "sscd_text.txt"), "@NAME@",
                             name));
  }
  EXPECT_EQ(Written([](int fd) { collect_sscd_logs(fd, "x", "/data/absent/"); }), "");
}

// Other calls wait meanwhile: for a reader that takes nothing 2 s, for one that has gone not at
// all.
TEST(DebugReport, ReaderThatDoesNotRead_EndsTheReportWithOneLine) {
  for (const bool gone : {false, true}) {
    android::base::unique_fd read_end, write_end;
    ASSERT_TRUE(android::base::Pipe(&read_end, &write_end));
    const int flags = fcntl(write_end.get(), F_GETFL);
    if (gone) read_end.reset();
    test::LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(WriteToReader(write_end.get(), std::string(200000, 'r')));
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(taken >= std::chrono::seconds(2), !gone);
    EXPECT_LT(taken, std::chrono::seconds(4));
    EXPECT_EQ(fcntl(write_end.get(), F_GETFL), flags);
    EXPECT_THAT(log.Take("bthal.debug_central"),
                ElementsAre(HasSubstr(gone ? "the reader of the debug report is gone: Broken pipe"
                                           : "the reader of the debug report is too slow: ")));
  }
}

}  // namespace
