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

// Cuts a report at its headings, in its order; the texts together are the report. Lines under no
// known heading are a section "other". What a file in the report contains is not searched for
// headings.
std::vector<Section> CutReport(const std::string& report);
// The sections of these names, in the report's order.
std::string SectionsOf(const std::string& report, const std::vector<std::string>& names);

}  // namespace bthalctl
