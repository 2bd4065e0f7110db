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

TEST(LogLine, NotOfTheLog_IsNone) {
  for (const char* line :
       {"", "2026-11-21 06:48:10.000", "2026-11-21 06:48:10.000 1 2 I no colon",
        "2026-11-21 06:48:10.000 1 2 X tag: text", "2026-13-21 06:48:10.000 1 2 I tag: text",
        "    #06 pc 0000560ad72bfa95  file (a: b)"}) {
    EXPECT_FALSE(ParseLogLine(line)) << line;
  }
  const auto line = ParseLogLine("2026-11-21 06:48:10.123  5341 25353 W a.tag: text: more");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->tag + "|" + line->text + "|" + line->priority, "a.tag|text: more|W");
  EXPECT_EQ(line->time.time_since_epoch() % std::chrono::seconds(1),
            std::chrono::milliseconds(123));
}

}  // namespace
}  // namespace bthalctl
