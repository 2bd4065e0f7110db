// Real-time rights of the programs that are compared: both have them, or neither.
#pragma once

#include <string>
#include <vector>

namespace bench {

// The daemon gives its reader thread real-time priority 1 where it may.
enum class Scheduling { kOrdinary, kRealTime };

// command, without the right to real-time priority when scheduling is ordinary.
std::vector<std::string> WithRights(Scheduling scheduling, std::vector<std::string> command);
// command, all of it at the priority of the daemon's reader when scheduling is real-time.
std::vector<std::string> AtPriority(Scheduling scheduling, std::vector<std::string> command);

// "ordinary", "real-time"
std::string Name(Scheduling scheduling);
// Those that this machine lets programs of this user have; says so when real-time is not among
// them.
std::vector<Scheduling> PossibleKinds();

}  // namespace bench
