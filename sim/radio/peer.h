#pragma once

#include <functional>
#include <memory>

#include "sim/base/event_loop.h"
#include "sim/radio/world.h"

namespace zvk {

// The other end of a connection. Lives as long as the connection.
class Peer {
 public:
  virtual ~Peer() = default;
  // A fragment of ACL data from the host; first: it begins an L2CAP frame.
  virtual void OnFragment(bool first, ByteView fragment) = 0;
};

// A peer's way back to the host.
struct PeerPort {
  std::function<void(bool first, ByteView fragment)> send;
  // Bytes that a fragment may have now.
  std::function<size_t()> fragment_bytes;
};

// kind is not kNone.
std::unique_ptr<Peer> MakePeer(PeerKind kind, EventLoop& loop, PeerPort port);

}  // namespace zvk
