#pragma once

#include <functional>

#include "sim/wire.h"

namespace zvk {

// Puts L2CAP frames together from ACL fragments and cuts them into such (Bluetooth Core 5.3, Vol 3,
// Part A, 7.2). A fragment that fits nowhere is dropped with what it would have completed.
class L2cap {
 public:
  // Both live for the call.
  using OnFrame = std::function<void(uint16_t channel, ByteView payload)>;
  using SendFragment = std::function<void(bool first, ByteView fragment)>;

  L2cap(OnFrame frame, SendFragment send) : on_frame_(std::move(frame)), send_(std::move(send)) {}

  void OnFragment(bool first, ByteView fragment);
  void Send(uint16_t channel, ByteView payload, size_t fragment_bytes);

 private:
  const OnFrame on_frame_;
  const SendFragment send_;
  Bytes frame_;  // empty between frames
};

}  // namespace zvk
