#include "tools/evidence/report_sections.h"

#include <algorithm>
#include <string_view>

namespace bthalctl {
namespace {

const std::string kRule(45, '=');
const std::string kStars(45, '*');
constexpr std::string_view kFileBegin = "BEGIN of LogFile: ";
constexpr std::string_view kFileEnd = "END of LogFile: ";

bool StartsWith(std::string_view text, std::string_view beginning) {
  return text.substr(0, beginning.size()) == beginning;
}

// Lines of a text, without their ends; where each begins.
class Lines {
 public:
  explicit Lines(const std::string& text) : text_(text) {
    for (size_t at = 0; at < text.size();) {
      begins_.push_back(at);
      const size_t end = text.find('\n', at);
      at = end == std::string::npos ? text.size() : end + 1;
    }
    begins_.push_back(text.size());
  }
  size_t count() const { return begins_.size() - 1; }
  size_t begin(size_t line) const { return begins_[line]; }
  // Empty behind the last.
  std::string_view at(size_t line) const {
    if (line >= count()) return {};
    std::string_view whole =
        std::string_view(text_).substr(begins_[line], begins_[line + 1] - begins_[line]);
    if (!whole.empty() && whole.back() == '\n') whole.remove_suffix(1);
    return whole;
  }

 private:
  const std::string& text_;
  std::vector<size_t> begins_;
};

// The section whose heading begins at this line; empty when none does.
std::string HeadingAt(const Lines& lines, size_t line) {
  if (lines.at(line) == kRule) {
    const std::string_view title = lines.at(line + 1);
    if (title == "Controller Firmware Information") return "firmware";
    if (title == "Anchors' Last Appear") return "last";
    if (title == "Anchors' History") return "history";
    if (StartsWith(title, "Debugfs:")) return "kernel";
  }
  if (lines.at(line) == kStars) {
    if (lines.at(line + 1).find("Begin Of Bluetooth Activities Reports") != std::string_view::npos)
      return "activity";
    const std::string_view file = lines.at(line + 2);
    if (lines.at(line + 1).empty() && StartsWith(file, kFileBegin)) {
      const std::string_view name = file.substr(kFileBegin.size());
      return StartsWith(name, "crashinfo_bt_") ? "crashinfo" : "coredump";
    }
  }
  return "";
}

// The line behind the block of a file that begins at this line.
size_t BehindFile(const Lines& lines, size_t line) {
  const std::string end =
      std::string(kFileEnd) + std::string(lines.at(line + 2).substr(kFileBegin.size()));
  for (size_t i = line + 3; i < lines.count(); ++i) {
    // stars, "", END, "", stars, ""
    if (lines.at(i) == end && lines.at(i - 2) == kStars && lines.at(i + 2) == kStars) return i + 4;
  }
  return lines.count();
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
      {"other", "what belongs to none of these"},
  };
  return names;
}

std::vector<Section> CutReport(const std::string& report) {
  const Lines lines(report);
  std::vector<Section> sections;
  const auto append = [&](const std::string& name, size_t first, size_t last) {
    if (sections.empty() || sections.back().name != name) sections.push_back({name, ""});
    sections.back().text.append(report, lines.begin(first), lines.begin(last) - lines.begin(first));
  };
  std::string current = "other";
  for (size_t line = 0; line < lines.count();) {
    const std::string heading = HeadingAt(lines, line);
    size_t next = line + 1;
    if (heading == "crashinfo" || heading == "coredump") {
      next = std::min(BehindFile(lines, line), lines.count());
      append(heading, line, next);
      current = "other";
    } else {
      if (!heading.empty()) {
        current = heading;
        next = std::min(line + 3, lines.count());  // the closing rule begins nothing
      }
      append(current, line, next);
    }
    line = next;
  }
  return sections;
}

}  // namespace bthalctl
