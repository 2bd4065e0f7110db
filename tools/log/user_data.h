// What of a log is nobody's business but the user's.
#pragma once

#include <string>

#include "tools/log/log_line.h"

namespace bthalctl {

// Whether a line of a log shows what data packets carried, or whole packets.
bool HoldsUserData(const LogLine& line);

// text with "(address)" for device addresses.
std::string WithoutAddresses(std::string text);

}  // namespace bthalctl
