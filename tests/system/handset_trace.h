#pragma once

#include <string>
#include <vector>

namespace test {

// What a simulator has noted with --trace.
struct TraceLine {
  double seconds;  // since its start
  char direction;  // '>' from the host, '<' to it, '-' the handset itself
  std::string text;
};

// The whole lines that are there by now.
std::vector<TraceLine> ReadTrace(const std::string& file);

struct Interval {
  double begin;
  double end;
};

// Intervals without gaps shorter than tolerance.
std::vector<Interval> Joined(std::vector<Interval> intervals, double tolerance);

}  // namespace test
