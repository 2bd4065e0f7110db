#pragma once

#include <string>
#include <vector>

namespace bthalctl {

// The parts of a debug report, by the names that a user chooses them with.
struct SectionName {
  const char* name;
  const char* what;
};
const std::vector<SectionName>& SectionNames();

struct Section {
  std::string name;
  std::string text;  // with its headings, as it stands in the report
};

// Cuts a report at its headings, in its order; the texts together are the report. Lines that belong
// to no section that is known are one named "other". What stands inside a file that the report
// carries is never taken for a heading.
std::vector<Section> CutReport(const std::string& report);

}  // namespace bthalctl
