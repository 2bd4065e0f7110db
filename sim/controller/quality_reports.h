// Quality reports, as parameters of a vendor event. Their values are always the same; they are
// listed in docs/simulator.md.
#pragma once

#include "sim/wire.h"

namespace zvk {

// id is the kind of report. Reports of version 0x0101 and later are longer than those before.
Writer LinkQualityReport(uint8_t id, uint16_t handle, uint16_t version);

// A trace of A2DP latencies that announces so many packets and carries entries of as many as fit
// into an event, at most carried.
Writer LatencyTrace(uint16_t handle, uint8_t announced, size_t carried);

}  // namespace zvk
