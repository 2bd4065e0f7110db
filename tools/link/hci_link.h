// A link to the controller: an attachment to the service, or a share in the holder's attachment.
#pragma once

#include <functional>
#include <optional>

#include "tools/base/wait.h"
#include "tools/hci/packet.h"

namespace bthalctl {

// Used on one thread, but for what DeliverTo() says. When the service or the holder is gone, Send
// and Take throw Failure; Take returns first what had arrived by then.
class HciLink {
 public:
  virtual ~HciLink() = default;

  virtual void Send(const Packet& packet) = 0;
  // The oldest packet that has arrived and is not taken yet; does not wait.
  virtual std::optional<Packet> Take() = 0;
  // Readable when Take() may have something.
  virtual int fd() const = 0;

  using Receiver = std::function<void(PacketType, ByteView)>;
  // From now on gives each packet to receiver, in order, on a thread of the link's own, instead of
  // keeping it for Take(). Null: no longer; receiver is not running when this returns. Returns
  // false for a link without threads.
  virtual bool DeliverTo(Receiver /*receiver*/) { return false; }

  // Waits for a packet; nothing when there is none by deadline. Throws Interrupted.
  std::optional<Packet> Receive(TimePoint deadline) {
    std::optional<Packet> packet = Take();
    while (!packet && WaitReadable(fd(), deadline)) packet = Take();
    return packet;
  }
};

}  // namespace bthalctl
