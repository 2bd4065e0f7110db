#include "tools/base/log_follower.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <vector>

#include "support/temp_dir.h"

namespace bthalctl {
namespace {

void Append(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::app) << text;
}

std::vector<std::string> Drained(LogFollower& log) {
  std::vector<std::string> lines;
  log.Drain([&](const std::string& line) { lines.push_back(line); });
  return lines;
}

using Lines = std::vector<std::string>;

TEST(LogFollower, FileThatGrowsAndIsReplaced_EveryLineOnce) {
  const test::TempDir folder;
  const std::string path = folder / "log";
  LogFollower log(path, false);
  EXPECT_EQ(Drained(log), Lines()) << "no file yet";
  Append(path, "one\ntw");
  EXPECT_EQ(Drained(log), Lines({"one"}));
  Append(path, "o\n");
  EXPECT_EQ(Drained(log), Lines({"two"}));
  Append(path, "three\n");
  std::rename(path.c_str(), (path + ".1").c_str());
  Append(path, "four\n");
  EXPECT_EQ(Drained(log), Lines({"three", "four"}));
  EXPECT_EQ(Drained(log), Lines());
}

}  // namespace
}  // namespace bthalctl
