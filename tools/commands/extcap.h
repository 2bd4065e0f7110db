// bthalctl as a program that Wireshark starts to capture (extcap): it lists what can be captured,
// its options, and writes to a FIFO.
#pragma once

namespace bthalctl {

// Whether Wireshark calls: an argument is one of extcap's.
bool IsExtcapCall(int argc, char** argv);
// Returns the exit code.
int RunExtcap(int argc, char** argv);

}  // namespace bthalctl
