#pragma once

#include <functional>

#include "tools/hci/packet.h"

namespace bthalctl {

// Cuts what a host sends in H4 (type byte, packet) into packets: any chunk in, whole packets out.
class H4Framer {
 public:
  // Calls on_packet for each packet that data completes. Returns false at a byte that is no type
  // which a host may send; the stream cannot be read on from there.
  bool Push(const uint8_t* data, size_t size, const std::function<void(Packet)>& on_packet);
  // Forgets a packet that is not whole.
  void Reset() { partial_.clear(); }
  uint8_t bad_type() const { return bad_type_; }

 private:
  Bytes partial_;  // type byte first
  uint8_t bad_type_ = 0;
};

}  // namespace bthalctl
