#pragma once

#include <functional>

#include "tools/wire/bytes.h"
#include "tools/wire/packet.h"

namespace wire {

// Cuts a byte stream in H4 framing into packets: any chunk in, whole packets out, no I/O. It serves
// the controller (packets of a host) and the bridge to another emulator (packets of a controller).
// A byte that is no type of that direction loses synchronisation; as the Core specification has it
// (Vol 4, Part A, 4), the only way back is the byte sequence of HCI Reset, or Reset() here.
class H4Framer {
 public:
  enum class From { kHost, kController };
  // packet is without its type byte and lives for the call.
  using OnPacket = std::function<void(PacketType type, ByteView packet)>;
  // bad is the byte that is no type.
  using OnLost = std::function<void(uint8_t bad)>;

  H4Framer(From from, OnPacket packet, OnLost lost)
      : from_(from), on_packet_(std::move(packet)), on_lost_(std::move(lost)) {}

  // OnPacket may call Reset: the rest of chunk is then dropped.
  void Push(ByteView chunk);
  // Forgets a half packet and is in step again.
  void Reset();

 private:
  bool Accepts(uint8_t type) const;
  ByteView FindReset(ByteView rest);
  size_t Gather(ByteView rest);

  const From from_;
  const OnPacket on_packet_;
  const OnLost on_lost_;
  bool lost_ = false;
  size_t reset_matched_ = 0;  // bytes of the HCI Reset sequence seen while lost
  Bytes partial_;             // type byte and what has come of a packet that spans chunks
  unsigned resets_ = 0;       // lets Push notice a Reset from inside OnPacket
};

}  // namespace wire
