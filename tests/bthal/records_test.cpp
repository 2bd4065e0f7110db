#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>

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

// A line of the history as the test with many threads writes them.
bool IsWholeLine(const std::string& line) {
  constexpr size_t kText = sizeof "##:##:##:###: " - 1;
  if (line.size() <= kText || !test::HasShape(line.substr(0, kText), "##:##:##:###: "))
    return false;
  if (line.substr(kText) == std::string(40, line[kText])) return true;
  const size_t bracket = line.find(" [");
  return line.compare(kText, 7, "number ") == 0 && bracket != std::string::npos &&
         (line.substr(bracket) == " [ IN]" || line.substr(bracket) == " [OUT]");
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

TEST(Records, LastAppearance_IsOneEntryATypeInOrderOfType) {
  AnchorRecords records;
  records.Add(AnchorType::kQvrError, "93");
  records.Add(AnchorType::kInitialize, "first");
  records.Add(AnchorType::kClose, "43");
  records.Add(AnchorType::kInitialize, Numbered, {0, 0, 0}, " [ IN]");
  std::vector<std::string> texts;
  for (const AnchorRecords::Line& line : records.LastAppearances()) texts.push_back(line.text);
  EXPECT_THAT(texts, ElementsAre("number 0 [ IN]", "43", "93"));
}

TEST(Records, TextOfAMoment_IsCutToABufferOf128Bytes) {
  const std::string fits(127, 'x');
  Record(AnchorType::kClose, fits + "tail");
  EXPECT_EQ(Records().History().back().text, fits);
}

TEST(Records, Timestamp_HasMillisecondsCutOff) {
  timespec time{};
  time.tv_sec = 1700000000;
  time.tv_nsec = 7999999;
  EXPECT_TRUE(test::HasShape(FormatTimestamp(time), "##:##:##:007")) << FormatTimestamp(time);
}

TEST(Records, ManyThreadsRecordWhileOthersDump_LinesStayWhole) {
  const int count = test::Count("records a thread", 5000);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 64; ++t) {
    threads.emplace_back([t, count] {
      const std::string text(40, static_cast<char>('a' + t % 26));
      const auto type = static_cast<AnchorType>(4 + 2 * (t % 4));
      for (int i = 0; i < count; ++i) {
        if (i % 2 == 0) {
          DebugCentral::Get().UpdateRecord(type, text);
        } else {
          const ScopedRecord anchor(type, Numbered, {static_cast<uint32_t>(i), 0, 0});
        }
      }
    });
  }
  std::thread dumper([&] {
    while (!stop) {
      const std::string log = DumpedHalLog();
      std::istringstream lines(log.substr(log.find("Anchors' History")));
      std::string text;
      std::getline(lines, text);
      std::getline(lines, text);
      int shown = 0;
      while (std::getline(lines, text)) {
        EXPECT_TRUE(IsWholeLine(text)) << text;
        ++shown;
      }
      EXPECT_LE(shown, 400);
    }
  });
  for (std::thread& thread : threads) thread.join();
  stop = true;
  dumper.join();
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
  for (const auto& [path, expected] :
       {std::pair{"/dev/logbuffer_x", "debugfs_readable.txt"},
        std::pair{"dev/logbuffer_x", "debugfs_readable.txt"},
        std::pair{"/dev/absent", "debugfs_missing.txt"}, std::pair{"", "debugfs_missing.txt"}}) {
    EXPECT_EQ(Written([p = path](int fd) { dump_debugfs_to_fd(fd, p); }),
              test::Replaced(test::LoadExpected(expected), "@PATH@", path));
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
               {"coredump_bt_", "socdump_1.txt", false},
               {"coredump_bt_", "socdump_bin", false}};
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

TEST(DebugCentral, RecognisesTheDebugDumpCommand) {
  const std::pair<test::Bytes, bool> cases[] = {{{0x5B, 0xFD, 0x00}, true},
                                                {{0x5B, 0xFD}, true},
                                                {{0xFD, 0x5B, 0x00}, false},
                                                {{0x5B}, false},
                                                {{}, false}};
  for (const auto& [command, expected] : cases) {
    EXPECT_EQ(DebugCentral::Get().IsControllerDebugDumpOpcode(test::ToVec(command)), expected)
        << test::ToHex(command);
  }
}

// The report names the log buffer that belongs to the UART; a path without a number changes
// nothing.
TEST(DebugCentral, UartDebugPort_FollowsTheUartsNumber) {
  DebugCentral& central = DebugCentral::Get();
  const auto dump = [&] { return Written([&](int fd) { central.Dump(fd); }); };
  central.SetBtUartDebugPort("/dev/ttySAC18");
  EXPECT_THAT(dump(), HasSubstr("Debugfs:/dev/logbuffer_tty18\n"));
  testing::internal::CaptureStderr();
  central.SetBtUartDebugPort("");
  central.SetBtUartDebugPort("/dev/tty");
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("SetBtUartDebugPort: uart port is empty!"));
  EXPECT_THAT(log, HasSubstr("SetBtUartDebugPort: cannot found uart port!"));
  EXPECT_THAT(dump(), HasSubstr("Debugfs:/dev/logbuffer_tty18\n"));
  EXPECT_THAT(dump(), HasSubstr("Debugfs:dev/logbuffer_btlpm\n"));
}

// A pipe that holds one page.
struct SmallPipe {
  SmallPipe() {
    EXPECT_TRUE(android::base::Pipe(&read_end, &write_end));
    fcntl(write_end.get(), F_SETPIPE_SZ, 4096);
  }
  android::base::unique_fd read_end, write_end;
};

// Other calls wait meanwhile: for a reader that takes nothing 2 s, for one that has gone not at
// all.
TEST(DebugReport, ReaderThatDoesNotRead_EndsTheReportWithOneLine) {
  const std::string text(40000, 'r');
  const auto write = [&](SmallPipe& pipe, const char* line) {
    testing::internal::CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WriteToReader(pipe.write_end.get(), text), line == nullptr);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(test::CountOf("the reader of the debug report", log), line == nullptr ? 0u : 1u);
    EXPECT_THAT(log, HasSubstr(line == nullptr ? "" : line));
    return std::chrono::steady_clock::now() - start;
  };
  SmallPipe unread, abandoned, read;
  const int flags = fcntl(unread.write_end.get(), F_GETFL);
  const auto taken = write(unread, "the reader of the debug report is too slow: ");
  EXPECT_GE(taken, std::chrono::milliseconds(2000));
  EXPECT_LT(taken, std::chrono::milliseconds(4000));
  EXPECT_EQ(fcntl(unread.write_end.get(), F_GETFL), flags);
  abandoned.read_end.reset();
  EXPECT_LT(write(abandoned, "the reader of the debug report is gone: Broken pipe"),
            std::chrono::milliseconds(2000));
  std::string received;
  std::thread reader([&] { android::base::ReadFdToString(read.read_end, &received); });
  write(read, nullptr);
  read.write_end.reset();
  reader.join();
  EXPECT_EQ(received, text);
}

}  // namespace
