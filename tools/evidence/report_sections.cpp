#include "tools/evidence/report_sections.h"

#include <algorithm>
#include <cstring>

namespace bthalctl {
namespace {

// A heading is a line that begins so, between two rules.
struct Heading {
  const char* begin;
  const char* section;
};

const std::string kRule = "\n" + std::string(45, '=') + "\n";
const std::string kStars = "\n" + std::string(45, '*') + "\n";

const Heading kHeadings[] = {
    {"Controller Firmware Information\n", "firmware"},
    {"Anchors' Last Appear\n", "last"},
    {"Anchors' History\n", "history"},
    {"Debugfs:", "kernel"},
    {"*   Begin Of Bluetooth Activities Reports", "activity"},
    {"\nBEGIN of LogFile: crashinfo_bt_", "crashinfo"},
    {"\nBEGIN of LogFile: ", "coredump"},
};

// The first heading at or behind from: where the line end before its rule stands, and its section.
size_t FindHeading(const std::string& report, size_t from, std::string* section) {
  for (size_t at = report.find('\n', from); at != std::string::npos;
       at = report.find('\n', at + 1)) {
    for (const std::string* rule : {&kRule, &kStars}) {
      if (report.compare(at, rule->size(), *rule) != 0) continue;
      for (const Heading& heading : kHeadings) {
        if (report.compare(at + rule->size(), strlen(heading.begin), heading.begin) != 0) continue;
        *section = heading.section;
        return at;
      }
    }
  }
  return std::string::npos;
}

// The end of the file whose block begins at begin: it is named once more between two rules.
size_t EndOfFile(const std::string& report, size_t begin) {
  const size_t name = begin + kStars.size() + sizeof "\nBEGIN of LogFile: " - 1;
  const std::string end =
      kStars + "\nEND of LogFile: " + report.substr(name, report.find('\n', name) - name) + "\n" +
      kStars;
  const size_t at = report.find(end, name);
  return at == std::string::npos ? report.size() : std::min(at + end.size() + 1, report.size());
}

}  // namespace

const std::vector<SectionName>& SectionNames() {
  static const std::vector<SectionName> names = {
      {"firmware", "the controller's firmware description"},
      {"last", "the last time of each kind of step"},
      {"history", "the last 400 steps, oldest first"},
      {"kernel", "the kernel's log buffers of serial port and low power"},
      {"crashinfo", "crash-information files"},
      {"coredump", "core dumps and the controller's dumps"},
      {"activity", "connections, wake locks, traffic and advertising reports"},
      {"other", "lines that belong to none of these"},
  };
  return names;
}

std::vector<Section> CutReport(const std::string& report) {
  const std::string text = "\n" + report;  // so that a rule has a line end before it
  std::vector<Section> sections;
  size_t begin = 1;
  const auto append = [&](const std::string& name, size_t end) {
    if (end == begin) return;
    if (sections.empty() || sections.back().name != name) sections.push_back({name, ""});
    sections.back().text.append(text, begin, end - begin);
    begin = end;
  };
  std::string current = "other";
  for (size_t at = 0;;) {
    std::string next;
    at = FindHeading(text, at, &next);
    append(current, std::min(at, text.size() - 1) + 1);
    if (at == std::string::npos) return sections;
    current = next;
    ++at;
    if (next == "crashinfo" || next == "coredump") {
      append(next, EndOfFile(text, at - 1));
      current = "other";
      at = begin - 1;
    }
  }
}

std::string SectionsOf(const std::string& report, const std::vector<std::string>& names) {
  std::string text;
  for (const Section& section : CutReport(report)) {
    if (std::find(names.begin(), names.end(), section.name) != names.end()) text += section.text;
  }
  return text;
}

}  // namespace bthalctl
