// A way to the controller: an attachment to the service of one's own, or a share in the holder's.
#pragma once

#include <optional>

#include "tools/base/wait.h"
#include "tools/hci/packet.h"

namespace bthalctl {

// Used on one thread. When the way ends (the service or the holder is gone), Send and Take throw
// Failure; Take gives first what had arrived by then.
class HciLink {
 public:
  virtual ~HciLink() = default;

  virtual void Send(const Packet& packet) = 0;
  // The oldest packet that arrived and was not taken yet; does not wait.
  virtual std::optional<Packet> Take() = 0;
  // Readable when Take() may have something.
  virtual int fd() const = 0;

  // Waits for a packet; nothing when there is none by deadline. Throws Interrupted.
  std::optional<Packet> Receive(TimePoint deadline) {
    std::optional<Packet> packet = Take();
    while (!packet && WaitReadable(fd(), deadline)) packet = Take();
    return packet;
  }
};

}  // namespace bthalctl
