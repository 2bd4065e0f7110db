// Timelines of a bring-up and of what follows, as somebody else's decoder reads them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using Json = nlohmann::json;

// Of each track, by its name, the names of its slices and instants; slices that do not nest, or end
// before they begin, are failures.
std::map<std::string, std::vector<std::string>> DecodeTrace(const std::string& file) {
  std::string text;
  const TempDir folder;
  WriteFile(folder / "trace.proto", LoadData("trace.proto"));
  EXPECT_EQ(Run({"sh", "-c", "exec protoc --decode=TraceFile -I \"$1\" trace.proto <\"$2\"", "sh",
                 folder.path(), file},
                &text)
                .exit_code,
            0)
      << text;
  std::map<std::string, std::vector<std::string>> tracks;
  std::map<std::string, std::string> names;             // of tracks
  std::map<std::string, std::vector<uint64_t>> stacks;  // begins of open slices
  const auto take = [&](std::map<std::string, std::string> fields) {
    if (fields.count("id") != 0) names[fields["id"]] = fields["name"];
    if (fields.count("type") == 0) return;
    const uint64_t time = std::stoull(fields["time"]);
    std::vector<uint64_t>& stack = stacks[fields["track"]];
    const int type = std::stoi(fields["type"]);
    if (type == 1 || type == 3) tracks[names[fields["track"]]].push_back(fields["name"]);
    if (type == 4) tracks[names[fields["track"]]].push_back(fields["value"]);
    if (type == 1) {
      EXPECT_TRUE(stack.empty() || time >= stack.back());
      stack.push_back(time);
    } else if (type == 2) {
      ASSERT_FALSE(stack.empty()) << "an end without a beginning";
      EXPECT_GE(time, stack.back());
      stack.pop_back();
    }
  };
  std::map<std::string, std::string> fields;
  int depth = 0;
  bool in_annotation = false;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    line.erase(0, line.find_first_not_of(' '));
    if (line.back() == '{') {
      if (++depth == 1) fields.clear();
      in_annotation = line == "annotations {";
    } else if (line == "}") {
      in_annotation = false;
      if (--depth == 0) take(fields);
    } else if (const size_t colon = line.find(": "); !in_annotation) {
      std::string value = line.substr(colon + 2);
      if (value.front() == '"') value = value.substr(1, value.size() - 2);
      fields.emplace(line.substr(0, colon), value);
    }
  }
  for (const auto& [track, stack] : stacks) EXPECT_TRUE(stack.empty()) << track;
  return tracks;
}

TEST(Timeline, ShowsTheStepsOfUpAndAllTraffic_ButNoUserData) {
  Handset handset("", Mode::kPlain);
  const TempDir folder;
  handset.StartService();
  const CtlResult up = handset.Ctl({"up", "--detach"});
  ASSERT_EQ(up.exit_code, 0) << handset.Log();

  const std::string file = folder / "radio.pftrace";
  ChildProcess timeline(handset.CtlCommand({"timeline", "-o", file, "-t", "60"}));
  ASSERT_TRUE(WaitFor([&] { return CountOf("a capture has begun", handset.Log()) > 0; }))
      << timeline.Output();
  ASSERT_EQ(handset.Ctl({"echo", "ZVK Loop", "--bytes", "5k"}).exit_code, 0);
  ASSERT_EQ(handset.Ctl({"afh", "--wlan", "6"}).exit_code, 0);
  timeline.Signal(SIGINT);
  const auto end = timeline.Wait(kDeadline);
  ASSERT_TRUE(end && end->exit_code == 0) << timeline.Output();

  auto tracks = DecodeTrace(file);
  EXPECT_THAT(tracks["commands"], ::testing::Contains("Reset (0x0C03)"));
  EXPECT_THAT(tracks["commands"], ::testing::Contains("Write RAM (0xFC4C)"));
  EXPECT_THAT(tracks["to the controller"], ::testing::Contains("ACL data"));
  EXPECT_THAT(tracks["from the controller"], ::testing::Contains("ACL data"));
  EXPECT_EQ(tracks["channel avoidance"].size(), 1u);
  EXPECT_THAT(tracks["wake_lock"], ::testing::Contains("held"));
  // What the state was between the bring-up and the capture is not known.
  EXPECT_THAT(tracks["power"], ::testing::ElementsAre("off", "on", "on"));
  EXPECT_THAT(tracks["line_baud"], ::testing::ElementsAre("4000000", "115200", "4000000"));
  EXPECT_THAT(tracks["told"], ::testing::Contains("a stack attaches"));

  const CtlResult json = handset.Ctl({"timeline", "--json"});
  const Json history = Json::parse(json.output);
  // What "up" prints is from the log, what the history has from the service itself: of one moment,
  // but told one after the other. "up" counts from the first line that it sees.
  const std::regex line("([0-9.]+) s  (\\S.*?) +([0-9.]+) s(?:  (.*))?");
  std::smatch attach;
  ASSERT_TRUE(std::regex_search(up.output, attach, std::regex("([0-9.]+) s  a stack attaches")));
  std::sregex_iterator shown(up.output.begin(), up.output.end(), line);
  std::vector<std::string> steps;
  for (const Json& step : history["steps"]) {
    SCOPED_TRACE(step.dump());
    ASSERT_NE(shown, std::sregex_iterator()) << up.output;
    const std::smatch match = *shown;
    ++shown;
    steps.push_back(step["name"]);
    EXPECT_EQ(match[2], steps.back());
    EXPECT_EQ(match[4], step["detail"]);
    const double begin = step["begin"];
    EXPECT_NEAR(std::stod(match[1]) - std::stod(attach[1]), begin, 0.4);
    EXPECT_NEAR(std::stod(match[3]), step["end"].get<double>() - begin, 0.4);
  }
  EXPECT_EQ(shown, std::sregex_iterator()) << up.output;
  EXPECT_EQ(steps, tracks["bring-up"]);

  for (const char* const secret : {"ZVK Loop", "5A:56:4B:A0"}) {
    EXPECT_THAT(json.output, Not(HasSubstr(secret)));
    EXPECT_THAT(ReadFile(file), Not(HasSubstr(secret)));
  }
}

}  // namespace
}  // namespace test
