// Scenario files for the simulator, made of captures.
#pragma once

#include <string>
#include <vector>

#include "tools/wire/capture_packets.h"

namespace bthalctl {

// A scenario (docs/simulator.md) in which the simulator's controller does to the same host what the
// controller of a capture did, as far as a scenario can tell it: answers with their values, errors
// and credits, late and missing answers, events that nobody asked for at their times. What it
// cannot tell is counted in its last lines. The capture begins with the bring-up. name: of the
// capture, for the first line.
std::string ScenarioOf(const std::vector<wire::CapturedPacket>& packets, const std::string& name);

}  // namespace bthalctl
