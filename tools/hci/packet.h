// HCI packets as the service takes and gives them: a type, and the packet without its H4 type byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/wire/bytes.h"
#include "tools/wire/codes.h"
#include "tools/wire/describe.h"
#include "tools/wire/fields.h"
#include "tools/wire/packet.h"
#include "tools/wire/text.h"

namespace bthalctl {

using wire::AddressText;
using wire::Bytes;
using wire::ByteView;
using wire::HexText;
using wire::Packet;
using wire::PacketType;
using wire::ParseAddress;
using wire::TypeName;
using wire::Writer;
namespace event = wire::event;
namespace le_event = wire::le_event;
namespace opcode = wire::opcode;

// Reads a packet from its front. What is absent reads as 0, and ok() tells that it was.
class Reader {
 public:
  explicit Reader(ByteView bytes) : rest_(bytes) {}

  uint8_t U8() { return static_cast<uint8_t>(Little(1)); }
  int8_t I8() { return static_cast<int8_t>(Little(1)); }
  uint16_t U16() { return static_cast<uint16_t>(Little(2)); }
  // The next size bytes, or what is left of them.
  Bytes Take(size_t size) { return Next(size).Copy(); }
  Bytes Rest() { return Take(left()); }
  void Skip(size_t size) { Next(size); }
  size_t left() const { return rest_.size(); }
  bool ok() const { return ok_; }

 private:
  uint64_t Little(size_t width) { return Next(width).Little(0, width); }
  ByteView Next(size_t size) {
    ok_ = ok_ && size <= left();
    const ByteView next = rest_.Sub(0, size);
    rest_ = rest_.From(size);
    return next;
  }

  ByteView rest_;
  bool ok_ = true;
};

// Throws Failure when the parameters are too many for a command.
Packet CommandPacket(uint16_t opcode, const Bytes& parameters);
// Handle and flags in the first two bytes. flags: PB in bits 0-1, BC (ISO: TS) above.
Packet DataPacket(PacketType type, uint16_t handle, unsigned flags, const Bytes& data);
inline uint16_t HandleOf(const Packet& data) { return Reader(data.bytes).U16() & 0x0FFF; }

// Bytes in hex, as a user writes them: see wire::ParseHex(). Throws Failure(kUsage).
Bytes ParseHex(const std::string& text);

}  // namespace bthalctl
