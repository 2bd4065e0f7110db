// What a service leaves behind that ends itself with a report.
#pragma once

#include <string>
#include <vector>

#include "bthal/child_case.h"
#include "support/temp_dir.h"

namespace test {

// The folders of the crash files below a root folder, with what is in them.
class CrashFolders {
 public:
  // Makes them, empty.
  explicit CrashFolders(const std::string& root);
  // Paths, in order.
  std::vector<std::string> CrashInfos() const;
  std::vector<std::string> CoreDumps() const;
  // The content of the one crash information, or core dump, whose name begins so; "none" when there
  // is none.
  std::string CrashInfoLike(const std::string& name) const;
  std::string CoreDumpLike(const std::string& name) const;

 private:
  const std::string folder_;
};

// A root folder of its own with them.
struct CrashRoot : TempDir, CrashFolders {
  CrashRoot() : CrashFolders(path()) {}
};

// Names of crash files have seconds: those of the next dump get names of their own.
void WaitForTheNextSecond();

// In the child: prints each event of a report.
void PrintReports();

// Expects the event, one pair of crash files and an abort in the function of code. extra: what the
// reporter has added. Returns the core dump's text.
std::string ExpectReport(int code, const std::string& extra, const ChildRun& run,
                         const CrashFolders& folders);

}  // namespace test
