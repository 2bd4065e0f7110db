#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tools/history/history.h"

namespace bthalctl {

using TrackDetails = std::vector<std::pair<std::string, std::string>>;

struct TrackSlice {
  int64_t begin_ns = 0;
  int64_t end_ns = 0;  // begin_ns: an instant
  std::string name;
  TrackDetails details;
};

// A row of a timeline. Its slices are in the order of their beginnings and do not overlap.
struct Track {
  std::string name;
  std::vector<TrackSlice> slices;
};

// The rows in which a timeline shows history, counters aside: steps; commands; packets of each
// direction; a row for each state and for each extension; what was told. Commands that overlap
// stand in further rows of the same name, with a number.
std::vector<Track> TracksOf(const History& history);

}  // namespace bthalctl
