#pragma once

#include <string>

#include "tools/log/transport_state.h"

namespace bthalctl {

// Reads from the section "last" of a debug report which transport is open. It holds the last time
// of each kind of step since the service started, so no traffic crowds the opening out. Leaves
// state as it is when the section does not tell.
void ReadTransportRecords(const std::string& section, TransportState* state);

}  // namespace bthalctl
