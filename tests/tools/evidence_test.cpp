#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/temp_dir.h"
#include "support/vectors.h"
#include "tools/base/failure.h"
#include "tools/evidence/evidence_file.h"
#include "tools/evidence/report_sections.h"

namespace bthalctl {
namespace {

using ::testing::HasSubstr;

const std::string kTombstone = test::LoadData("tombstone.txt");

std::string Without(std::string text, const std::string& part) {
  const size_t at = text.find(part);
  return at == std::string::npos ? throw Failure("no " + part) : text.erase(at, part.size());
}

TEST(Tombstone, OfAnAbort_NamesTheFunctionThatAborted) {
  const Tombstone tombstone = ParseTombstone(kTombstone);
  EXPECT_EQ(tombstone.function, "HostDownloadFw");
  EXPECT_EQ(tombstone.signal, "SIGABRT");
  EXPECT_EQ(tombstone.message, "it's over: 'quoted'");
  EXPECT_EQ(tombstone.pid, 22179);
  EXPECT_EQ(tombstone.tid, 22184);
  EXPECT_EQ(tombstone.thread, "BT COEX");
  EXPECT_EQ(tombstone.frames.size(), 7u);
  EXPECT_EQ(std::chrono::system_clock::to_time_t(tombstone.time), 1795240098) << "05:48:18 UTC";
}

TEST(Tombstone, FunctionOfEachForm) {
  const struct {
    const char* frame;
    const char* function;
  } rows[] = {
      {"#00 pc 0012  /lib/x.so (ns::Class<a::b(int)>::operator()(int) const) x.cpp:1",
       "operator()"},
      {"#00 pc 0012  /lib/x.so (ns::{lambda()#1}::operator()() const)", "operator()"},
      {"#00 pc 0012  /lib/x.so", "x.so"},
      {"#00 pc 0012  /lib/x.so (cut off(", "cut off("},
      {"#00 pc 0012  (", "("},
      {"#00", ""},
      {"#00 pc 0012  /lib/x.so\n    #01 pc 0034  /lib/y.so (abort)\n"
       "    #02 pc 0056  /other/service (a::Report(int))\n    #03 pc 0078  /x/service (b())",
       "Report"},
  };
  const std::string head = kTombstone.substr(0, kTombstone.find("    #00"));
  for (const auto& row : rows) {
    EXPECT_EQ(ParseTombstone(head + "    " + row.frame + "\n").function, row.function) << row.frame;
  }
}

TEST(EvidenceFiles, Malformed_OneLineSaysWhat) {
  const std::string info =
      "crash_reason: Host Change Baudrate Error\ncrash_count: 2\ntimestamp: 2026-11-21_06-48-18\n";
  EXPECT_EQ(ParseCrashInfo(info).reason, "Host Change Baudrate Error");
  EXPECT_EQ(ParseCrashInfo(info).count, 2u);
  const struct {
    std::string text;
    const char* mistake;
  } infos[] = {
      {"", "crash_reason"},
      {std::string(5000, '\0'), "crash_reason"},
      {"crash_reason: x", "crash_count"},
      {Without(info, "crash_count: 2\n"), "crash_count"},
      {"crash_reason: x\ncrash_count: \ntimestamp: 2026-11-21_06-48-18\n",
       "\"\" is no crash count"},
      {"crash_reason: x\ncrash_count: 4294967296\n", "4294967296"},
      {"crash_reason: x\ncrash_count: -1\n", "-1"},
      {"crash_reason: x\ncrash_count: 1\ntimestamp: 2026-11-21_06-48\n", "no timestamp"},
      {"crash_reason: x\ncrash_count: 1\ntimestamp: 2026-11-31_06-48-18x\n", "no timestamp"},
      {"crash_reason: x\ncrash_count: 1\ntimestamp: 2026-14-31_06-48-18\n", "no timestamp"},
      {"crash_reason: x\ncrash_count: \x1b[2J\n", "\"?[2J\" is no crash count"},
      {"crash_reason: x\ncrash_count: \xc2\x9b\x7f\xc3\xa4\n", "\"??\xc3\xa4\" is no crash count"},
  };
  const struct {
    std::string text;
    const char* mistake;
  } tombstones[] = {
      {"", "Timestamp"},
      {Without(kTombstone, "Timestamp: "), "Timestamp"},
      {Without(kTombstone, "2026-11-21 "), "no time"},
      {Without(kTombstone, "pid: 22179, "), "pid: "},
      {Without(kTombstone, "22179, tid"), "no process"},
      {Without(kTombstone, "signal 6 "), "signal "},
      {Without(kTombstone, "(SIGABRT), code -6, fault addr (nil)"), "no signal"},
      {Without(kTombstone, "\nbacktrace:\n"), "no backtrace"},
      {Without(kTombstone, "Cmdline: "), "Cmdline"},
  };
  const auto expect = [](const auto& parse, const std::string& text, const char* mistake) {
    try {
      parse(text);
      ADD_FAILURE() << "accepted: " << text;
    } catch (const Failure& failure) {
      EXPECT_THAT(failure.what(), HasSubstr(mistake));
      EXPECT_EQ(std::string(failure.what()).find_first_of("\n\x1b"), std::string::npos);
    }
  };
  for (const auto& row : infos) expect(ParseCrashInfo, row.text, row.mistake);
  for (const auto& row : tombstones) expect(ParseTombstone, row.text, row.mistake);
  // Cut off anywhere: it may be refused, it is never read beyond its end.
  for (size_t size = 0; size <= kTombstone.size(); ++size) {
    try {
      ParseTombstone(kTombstone.substr(0, size));
    } catch (const Failure&) {
    }
  }
}

TEST(EvidenceFiles, WhatIsNoFileOfTheirs_IsNotRead) {
  const test::TempDir folder;
  ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
  test::WriteFile(folder / "large", std::string(101, 'x'));
  for (const auto& [name, mistake] : std::vector<std::pair<std::string, std::string>>{
           {"fifo", "no regular file"}, {"large", "101 bytes"}, {"none", "No such file"}}) {
    try {
      ReadEvidence(folder / name, 100);
      ADD_FAILURE() << name;
    } catch (const Failure& failure) {
      EXPECT_THAT(failure.what(), HasSubstr(mistake));
    }
  }
}

// A report with everything in it, and a core dump that carries headings of its own.
std::string Report(const std::string& dump, const std::string& timestamp = "1") {
  const std::string rule(45, '='), stars(45, '*');
  const auto file = [&](const std::string& name, const std::string& content) {
    return stars + "\n\nBEGIN of LogFile: " + name + "\n\n" + stars + "\n" + content + "\n" +
           stars + "\n\nEND of LogFile: " + name + "\n\n" + stars + "\n\n";
  };
  return rule + "\nController Firmware Information\n" + rule + "\nchip\n" + rule +
         "\nAnchors' Last Appear\n" + rule + "\nTimestamp of x: 1\n" + rule +
         "\nAnchors' History\n" + rule + "\n1: x\n" + rule + "\nDebugfs:/dev/logbuffer_tty16\n" +
         rule + "\nkernel says\n\n\n" +
         file("crashinfo_bt_" + timestamp + ".txt", "crash_reason: y") +
         file("coredump_bt_" + timestamp + ".bin", dump) + stars +
         "\n*   Begin Of Bluetooth Activities Reports   *\n" + stars + "\n" + rule +
         "\n 1. Connected devices Report :\n" + rule + "\n";
}

TEST(ReportSections, FilesWithHeadingsOfTheirOwn_StayWhole) {
  const std::string inner = Report("inner", "2");
  for (const std::string& dump :
       {inner, std::string("END of LogFile: other\n"), std::string(1000, '\0')}) {
    const std::string report = Report(dump);
    std::string all, names;
    for (const Section& section : CutReport(report)) {
      all += section.text;
      names += section.name + " ";
      if (section.name == "coredump") {
        EXPECT_THAT(section.text, HasSubstr(dump));
      }
    }
    EXPECT_EQ(all, report);
    EXPECT_EQ(names, "firmware last history kernel crashinfo coredump activity ");
  }
}

TEST(ReportSections, CutOffAnywhere_NothingIsLost) {
  const std::string report = Report(Report("inner", "2"));
  for (size_t size = 0; size < report.size(); ++size) {
    std::string all;
    for (const Section& section : CutReport(report.substr(0, size))) all += section.text;
    ASSERT_EQ(all, report.substr(0, size));
  }
}

}  // namespace
}  // namespace bthalctl
