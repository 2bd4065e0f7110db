#include "tools/evidence/report_sections.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace bthalctl {
namespace {

using ::testing::HasSubstr;

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
