// HCI packets as bytes: types, headers, checked access, the builder of outgoing commands.
// Formats: Core 5.3, 4.E.5.4 (packets), 4.E.7.7 (events), 4.A.2 (type byte).
#pragma once

#include <hidl/HidlSupport.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <vector>

namespace android::hardware::bluetooth::hci {

// The H4 packet type byte.
enum HciPacketType : uint8_t {
  HCI_PACKET_TYPE_UNKNOWN = 0,
  HCI_PACKET_TYPE_COMMAND = 1,
  HCI_PACKET_TYPE_ACL_DATA = 2,
  HCI_PACKET_TYPE_SCO_DATA = 3,
  HCI_PACKET_TYPE_EVENT = 4,
  HCI_PACKET_TYPE_ISO_DATA = 5,
};

// Takes one packet without its type byte. The bytes live until the function returns.
using PacketReceiver = std::function<void(const hidl_vec<uint8_t>&)>;

// The receivers of what a controller sends.
struct PacketReceivers {
  PacketReceiver event;
  PacketReceiver acl;
  PacketReceiver sco;
  PacketReceiver iso;
};

// Where the payload length stands in a packet's fixed header.
struct HeaderFormat {
  uint8_t size;
  uint8_t length_offset;
  uint8_t length_size;  // in bytes, little-endian
  uint16_t length_mask;
};

inline constexpr HeaderFormat kHeaders[] = {
    {0, 0, 0, 0x0000},  // unknown
    {3, 2, 1, 0x00FF},  // command
    {4, 2, 2, 0xFFFF},  // ACL data
    {3, 2, 1, 0x00FF},  // SCO data
    {2, 1, 1, 0x00FF},  // event
    {4, 2, 2, 0x3FFF},  // ISO data: two reserved bits above the length
};
inline constexpr size_t kMaxHeaderSize = 4;
inline constexpr size_t kMaxPacketSize = kMaxHeaderSize + 0xFFFF;

// The payload length that a whole header announces.
inline size_t PayloadLength(const HeaderFormat& format, const uint8_t* header) {
  if (format.length_size == 0) return 0;
  unsigned length = header[format.length_offset];
  if (format.length_size == 2) {
    length |= static_cast<unsigned>(header[format.length_offset + 1]) << 8;
  }
  return length & format.length_mask;
}

// Whether a packet has its whole header and exactly the payload that the header announces.
inline bool LengthIsRight(HciPacketType type, const uint8_t* packet, size_t size) {
  const HeaderFormat& format = kHeaders[type];
  return size >= format.size && size == format.size + PayloadLength(format, packet);
}

inline constexpr uint8_t kEventCommandComplete = 0x0E;
inline constexpr uint8_t kEventCommandStatus = 0x0F;
inline constexpr uint8_t kEventHardwareError = 0x10;
inline constexpr uint8_t kEventLoopbackCommand = 0x19;
inline constexpr uint8_t kEventVendorSpecific = 0xFF;

// Access that never leaves the packet: an absent byte reads as 0.
inline uint8_t ByteAt(const hidl_vec<uint8_t>& packet, size_t at) {
  return at < packet.size() ? packet[at] : uint8_t{0};
}
inline uint16_t Le16At(const hidl_vec<uint8_t>& packet, size_t at) {
  return static_cast<uint16_t>(ByteAt(packet, at) | ByteAt(packet, at + 1) << 8);
}

// The status of a Command Complete (its byte 5); an absent one counts as a failure.
inline uint8_t CommandCompleteStatus(const hidl_vec<uint8_t>& event) {
  constexpr uint8_t kAbsent = 0xFF;
  return event.size() > 5 ? event[5] : kAbsent;
}

// Whether an event is a Command Status that refuses its command; one with status 0 only announces
// a later answer.
inline bool IsRefusal(const hidl_vec<uint8_t>& event) {
  return ByteAt(event, 0) == kEventCommandStatus && ByteAt(event, 2) != 0;
}

// A command packet: opcode (little-endian), parameter length, parameters.
inline std::vector<uint8_t> BuildCommand(uint16_t opcode, uint8_t length, const uint8_t* params) {
  std::vector<uint8_t> command(size_t{3} + length);
  command[0] = static_cast<uint8_t>(opcode);
  command[1] = static_cast<uint8_t>(opcode >> 8);
  command[2] = length;
  std::copy_n(params, length, command.begin() + 3);
  return command;
}

}  // namespace android::hardware::bluetooth::hci
