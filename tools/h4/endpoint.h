// Where a host connects to serve-h4: a pseudo-terminal behind a link, a Unix socket, a TCP port, or
// this machine's own kernel.
#pragma once

#include <android-base/unique_fd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tools/wire/bytes.h"

namespace bthalctl {

// Used on one thread. One host at a time: Wait for one, serve it over the descriptor that Accept
// gave, drop the descriptor, wait for the next.
class Endpoint {
 public:
  virtual ~Endpoint() = default;
  // Readable when Accept may find a host.
  virtual int fd() const = 0;
  // The next host's non-blocking stream; invalid when there is none yet.
  virtual ::android::base::unique_fd Accept() = 0;
  // What to tell the user when the bytes of one read are no H4 of the host but a message of the
  // endpoint's driver.
  virtual std::optional<std::string> OwnMessage(wire::ByteView /*read*/) { return std::nullopt; }
  // The longest packet that a host takes, with its type byte.
  virtual size_t longest_packet() const { return SIZE_MAX; }
  // What a host connects to, as serve-h4 prints it.
  virtual std::string Name() const = 0;
};

// Each throws Failure.
std::unique_ptr<Endpoint> MakePtyEndpoint(const std::string& link);
std::unique_ptr<Endpoint> MakeUnixEndpoint(const std::string& path);
// address: HOST:PORT, [HOST]:PORT or PORT (of 127.0.0.1); port 0 picks a free one.
std::unique_ptr<Endpoint> MakeTcpEndpoint(const std::string& address);
// A Bluetooth device of this kernel, through /dev/vhci. There is one host; it gets the device when
// Accept is called.
std::unique_ptr<Endpoint> MakeVhciEndpoint();

}  // namespace bthalctl
