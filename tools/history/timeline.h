// A history as a file for a timeline viewer.
#pragma once

#include <string>

#include "tools/history/history.h"

namespace bthalctl {

// Perfetto's trace format: TrackEvents on tracks of one process, and counter tracks.
std::string PerfettoTrace(const History& history);
// Chrome's JSON trace format ("traceEvents"), for viewers that read that: times in microseconds.
std::string ChromeTrace(const History& history);

}  // namespace bthalctl
