// bthalctl as a program that Wireshark starts to capture (extcap): it lists what can be captured,
// its options, and writes to a FIFO.
#pragma once

#include <set>
#include <string>

namespace bthalctl {

// Whether Wireshark calls: an argument is one of extcap's.
bool IsExtcapCall(int argc, char** argv);
// The root folders of running services, as far as this user sees them: the one of the environment,
// "/" (as an empty text), and those in the environments of processes.
std::set<std::string> FindRoots();
// Returns the exit code.
int RunExtcap(int argc, char** argv);

}  // namespace bthalctl
