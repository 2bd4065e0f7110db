#pragma once

#include <functional>
#include <memory>

#include "hci/packet.h"

namespace android::hardware::bluetooth::hci {

// Reassembles one packet after the other from a byte stream that is cut at any place.
// Owned by H4Protocol, used on the reader thread only.
class HciPacketizer {
 public:
  // packet_ready is called, from OnDataReady, when GetPacket() is complete.
  explicit HciPacketizer(std::function<void()> packet_ready);

  // Takes bytes of the packet of this type; returns how many it took: a whole packet with payload
  // at once, else header and payload in a call each. A packet without payload completes on the
  // next call.
  size_t OnDataReady(HciPacketType type, const uint8_t* data, size_t length);

  // Header and payload, without the type byte. Valid while packet_ready runs.
  const hidl_vec<uint8_t>& GetPacket() const { return packet_; }

 private:
  enum State { HCI_PREAMBLE, HCI_PAYLOAD };

  const std::function<void()> packet_ready_;
  State state_ = HCI_PREAMBLE;
  size_t bytes_read_ = 0;       // of the header
  size_t bytes_remaining_ = 0;  // of the payload
  // For packets that come in pieces. As long as the longest possible one: none needs an allocation
  // of its own.
  const std::unique_ptr<uint8_t[]> buffer_;
  hidl_vec<uint8_t> packet_;  // a view of buffer_, or of a packet that came whole
};

}  // namespace android::hardware::bluetooth::hci
