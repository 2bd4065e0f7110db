// What a service leaves behind that ends itself with a report.
#pragma once

#include <string>
#include <vector>

#include "bthal/child_case.h"
#include "support/temp_dir.h"

namespace test {

// A root folder with the folders of the crash files.
struct CrashRoot : TempDir {
  CrashRoot();
  // Paths, in order.
  std::vector<std::string> CrashInfos() const;
  std::vector<std::string> CoreDumps() const;
};

// One on the co-processor path, with a firmware of one record.
struct ReportRoot : CrashRoot {
  ReportRoot();
};

// In the child: prints each event of a report.
void PrintReports();

// Expects the event, one pair of crash files and an abort in the function of code. extra: what the
// reporter has added. Returns the core dump's text.
std::string ExpectReport(int code, const std::string& extra, const ChildRun& run,
                         const CrashRoot& root);

}  // namespace test
