#pragma once

#include <string>

namespace test {

// Unix sockets at a path, which must be short enough for an address; type: SOCK_STREAM or
// SOCK_SEQPACKET. The caller closes the descriptor.

// -1 when nobody listens there.
int ConnectUnix(const std::string& path, int type);
// Listens for one connection at a time.
int ListenUnix(const std::string& path, int type);

}  // namespace test
