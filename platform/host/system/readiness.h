#pragma once

namespace bthal {

// Tells whoever supervises this process that it serves: READY=1 to the datagram socket that the
// environment variable NOTIFY_SOCKET names, a path or, with '@' in front, an abstract name. Does
// nothing without the variable; a socket that does not take it costs one line of the log.
void TellReadiness();

}  // namespace bthal
