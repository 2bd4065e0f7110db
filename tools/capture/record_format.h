// The bytes of capture files: pcapng is little-endian, btsnoop big-endian.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/wire/bytes.h"

namespace bthalctl::record_format {

// Blocks of pcapng.
constexpr uint32_t kSectionHeader = 0x0A0D0D0A, kInterface = 1, kEnhancedPacket = 6;
constexpr size_t kPacketData = 28;  // where an enhanced packet's data begin
// Options, of any block, of a packet and of an interface.
constexpr uint16_t kComment = 1, kPacketFlags = 2, kDropCount = 4, kTimeResolution = 9;

constexpr size_t kBtsnoopHead = 16;    // of a file
constexpr size_t kBtsnoopRecord = 24;  // before the bytes of a record

// Opcodes of the monitor socket.
constexpr uint16_t kMonitorNewIndex = 0, kMonitorOpenIndex = 8, kMonitorNote = 12;

inline uint64_t Big(wire::ByteView bytes, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value = value << 8 | bytes[at + i];
  return value;
}

// Calls take(code, value) for each option of a pcapng block, whose options begin at at.
template <typename Take>
void ForEachOption(wire::ByteView block, size_t at, Take take) {
  while (at + 4 < block.size() && block.U16(at) != 0) {
    const size_t size = block.U16(at + 2);
    take(block.U16(at), block.Sub(at + 4, size));
    at += 4 + (size + 3) / 4 * 4;
  }
}
// Where the options of an enhanced packet begin.
inline size_t PacketOptions(wire::ByteView block) {
  return kPacketData + (size_t{block.U32(20)} + 3) / 4 * 4;
}

}  // namespace bthalctl::record_format
