#pragma once

#include <string>

namespace bthal {

// Tells whoever supervises this process that it serves: READY=1 to the datagram socket that the
// environment variable NOTIFY_SOCKET names, a path or, with '@' in front, an abstract name. Does
// nothing without the variable; a socket that does not take it costs one line of the log.
void TellReadiness();

// Tells it what it shows as the state of this process, in the same way; does not wait for room.
void TellStatus(const std::string& text);

}  // namespace bthal
