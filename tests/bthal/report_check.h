// What a service leaves behind that ends itself with a report.
#pragma once

#include <string>

#include "bthal/child_case.h"
#include "support/temp_dir.h"

namespace test {

// A root folder on the co-processor path, with the folders of the crash files and a firmware of one
// record.
struct ReportRoot : TempDir {
  ReportRoot();
};

// In the child: prints each event of a report.
void PrintReports();

// Expects the event, one pair of crash files and an abort in the function of code. extra: what the
// reporter has added. Returns the core dump's text.
std::string ExpectReport(int code, const std::string& extra, const ChildRun& run,
                         const std::string& root);

}  // namespace test
