// Which LE devices the last scan has heard, for the completion of names in a shell.
#pragma once

#include <string>
#include <vector>

namespace bthalctl {

// Keeps names and addresses below the root folder, for the service's user and its group. Whoever
// may not write there keeps none.
void KeepHeardPeers(const std::vector<std::string>& peers);
// Empty where there are none.
std::vector<std::string> HeardPeers();

}  // namespace bthalctl
