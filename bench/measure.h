#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "controller.h"
#include "distribution.h"
#include "relay.h"
#include "row.h"
#include "sink.h"

namespace bench {

// What a relay did. Times in microseconds.
struct Figures {
  size_t sent = 0;
  size_t arrived = 0;
  double cpu_share = 0;  // of one processor, under the paced events
  Distribution delay;
  size_t round_trips = 0;
  Distribution round_trip;
};

// Returns once packets come through, as a command's answer does. Throws std::runtime_error when it
// does not.
void AwaitPath(Relay* relay, Sink* sink);

// So many seconds of events from the controller, at a paced 300 kB/s; then round trips of a command
// and its answer.
Figures Measure(int seconds, Controller* controller, Relay* relay, Sink* sink);

// Of each time the median of the runs, of each count the sum.
Figures Combine(const std::vector<Figures>& runs);

void AddFigures(const Figures& figures, Row* row);
// To those of another relay.
void AddRatios(const Figures& figures, const Figures& base, Row* row);

}  // namespace bench
