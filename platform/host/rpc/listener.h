#pragma once

#include <string>

#include "rpc/socket_folder.h"

namespace bthal::rpc {

// Opens this process's socket in folder and accepts connections on the I/O thread, for good. A peer
// must be of this process's user, or root, or in the socket's group. False with errno on failure.
bool StartListening(const SocketFolder& folder, std::string* socket_name);

}  // namespace bthal::rpc
