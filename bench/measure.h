#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "controller.h"
#include "relay.h"
#include "sink.h"

namespace bench {

// What a relay did. Times in microseconds.
struct Figures {
  size_t sent = 0;
  size_t arrived = 0;
  double cpu_share = 0;  // of one processor, under the paced events
  double delay_p50 = 0, delay_p99 = 0;
  size_t round_trips = 0;
  double round_trip_p50 = 0, round_trip_p99 = 0;
};

// So many seconds of events from the controller, at a paced 300 kB/s; then round trips of a command
// and its answer.
Figures Measure(int seconds, Controller* controller, Relay* relay, Sink* sink);

// Of each time the median of the runs, of each count the sum.
Figures Combine(const std::vector<Figures>& runs);

// One row each, key=value.
void PrintRow(const std::string& relay, const Figures& figures);
void PrintRatio(const std::string& relay, const Figures& figures, const std::string& to,
                const Figures& base);

}  // namespace bench
