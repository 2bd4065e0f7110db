#include "tools/log/bring_up_steps.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "support/vectors.h"
#include "tools/base/failure.h"

namespace bthalctl {
namespace {

// A log line and, behind it, what steps make of it.
std::string Told(BringUpSteps& steps, const std::string& line) {
  const auto parsed =
      ParseLogLine("2026-11-21 06:48:" + line.substr(0, 6) + "  5341  5353" + line.substr(6));
  if (!parsed) throw Failure("no log line: " + line);
  std::string told = line + "\n";
  for (const Progress& progress : steps.Feed(*parsed)) {
    const char* kinds[] = {"begin", "end", "failed", "mark", "trouble"};
    told += std::string("> ") + kinds[static_cast<int>(progress.kind)];
    told += " " + std::to_string(progress.at.count()) + "+" +
            std::to_string(progress.took.count()) + " " + progress.name;
    if (!progress.detail.empty()) told += " = " + progress.detail;
    told += "\n";
  }
  return told;
}

TEST(BringUpSteps, LinesOfALog_TellTheStepsThatTheyBeginAndEnd) {
  const std::string expected = test::LoadData("bring_up_steps.txt");
  std::string told;
  auto steps = std::make_unique<BringUpSteps>();
  std::istringstream lines(expected);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("> ", 0) == 0) continue;
    const bool log_line = !line.empty() && line[0] != '#' && line[0] != '=';
    if (!log_line) steps = std::make_unique<BringUpSteps>();
    told += log_line ? Told(*steps, line) : line + "\n";
  }
  EXPECT_EQ(told, expected);
}

}  // namespace
}  // namespace bthalctl
