#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/wire/bytes.h"

namespace wire {

// The H4 type byte (Core 5.3, 4.A.2).
enum class PacketType : uint8_t { kCommand = 1, kAcl = 2, kSco = 3, kEvent = 4, kIso = 5 };

struct Packet {
  PacketType type = PacketType::kCommand;
  Bytes bytes;  // without the type byte
};

// Where a packet's length is (Core 5.3, 4.E.5.4).
struct PacketLayout {
  size_t header;         // bytes before the payload, without the type byte
  size_t length_offset;  // of the length field
  size_t length_width;   // bytes
  uint16_t length_mask;
};

// Null for a byte that is no packet type.
inline const PacketLayout* LayoutOf(uint8_t type) {
  static constexpr PacketLayout kLayouts[] = {
      {3, 2, 1, 0xFF},    // command
      {4, 2, 2, 0xFFFF},  // ACL
      {3, 2, 1, 0xFF},    // SCO
      {2, 1, 1, 0xFF},    // event
      {4, 2, 2, 0x3FFF},  // ISO
  };
  return type >= 1 && type <= 5 ? &kLayouts[type - 1] : nullptr;
}

// Size of a packet by its header, both without the type byte; 0 while the header is incomplete.
inline size_t PacketSize(const PacketLayout& layout, ByteView packet) {
  if (packet.size() < layout.header) return 0;
  const uint64_t length = packet.Little(layout.length_offset, layout.length_width);
  return layout.header + static_cast<size_t>(length & layout.length_mask);
}

}  // namespace wire
