#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/vectors.h"
#include "tools/base/failure.h"
#include "tools/evidence/evidence_file.h"
#include "tools/evidence/report_sections.h"

namespace bthalctl {
namespace {

using ::testing::HasSubstr;
using Json = nlohmann::json;

const std::string kTombstone = test::LoadData("tombstone.txt");
const std::string kInfo =
    "crash_reason: Host Change Baudrate Error\ncrash_count: 2\ntimestamp: 2026-11-21_06-48-18\n";

TEST(EvidenceFiles, Malformed_OneLineSaysWhat) {
  const struct {
    Json (*parse)(const std::string& text);
    const char* part;
    const char* instead;
    const char* mistake;
  } rows[] = {
      {ParseCrashInfo, ": 2\n", ": \x1b[2J\n", "\"?[2J\" is no crash count"},
      {ParseCrashInfo, ": 2\n", ": \xc2\x9b\x7f\xc3\xa4\n", "\"??\xc3\xa4\" is no crash count"},
      {ParseCrashInfo, "-18\n", "\n", "no timestamp"},
      {ParseTombstone, "2026-11-21 ", "", "no time"},
      {ParseTombstone, "22179, tid", "", "no process"},
      {ParseTombstone, "(SIGABRT), code -6, fault addr (nil)", "", "no signal"},
      {ParseTombstone, "\nbacktrace:\n", "", "no backtrace"},
  };
  for (const auto& row : rows) {
    const std::string& good = row.parse == ParseTombstone ? kTombstone : kInfo;
    try {
      row.parse(test::Replaced(good, row.part, row.instead));
      ADD_FAILURE() << "accepted with \"" << row.instead << "\" for " << row.part;
    } catch (const Failure& failure) {
      EXPECT_THAT(failure.what(), HasSubstr(row.mistake));
      EXPECT_EQ(std::string(failure.what()).find_first_of("\n\x1b"), std::string::npos);
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
    }
    EXPECT_EQ(all, report);
    EXPECT_EQ(names, "firmware last history kernel crashinfo coredump activity ");
    EXPECT_THAT(SectionsOf(report, {"coredump"}), HasSubstr(dump));
  }
}

}  // namespace
}  // namespace bthalctl
