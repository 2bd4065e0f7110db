// The bytes of capture files: pcapng in the byte order of each section, btsnoop big-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/wire/bytes.h"

namespace wire::record_format {

// Blocks of pcapng.
constexpr uint32_t kSectionHeader = 0x0A0D0D0A, kInterface = 1, kOldPacket = 2, kSimplePacket = 3,
                   kEnhancedPacket = 6;
constexpr uint32_t kByteOrder = 0x1A2B3C4D;  // in a section header
constexpr size_t kPacketData = 28;           // where an enhanced packet's data begin
// Options, of any block, of a packet and of an interface.
constexpr uint16_t kComment = 1, kPacketFlags = 2, kDropCount = 4, kTimeResolution = 9;

constexpr size_t kBtsnoopHead = 16;    // of a file
constexpr size_t kBtsnoopRecord = 24;  // before the bytes of a record
// Data links of btsnoop: H4, and the Linux monitor.
constexpr uint32_t kH4Link = 1002, kMonitorLink = 2001;

// Opcodes of the monitor socket.
constexpr uint16_t kMonitorNewIndex = 0, kMonitorOpenIndex = 8, kMonitorNote = 12;

// Bytes with the byte order of their numbers.
struct Numbers {
  ByteView bytes;
  bool big_endian = true;

  uint64_t Number(size_t at, size_t width) const {
    if (!big_endian) return bytes.Little(at, width);
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value = value << 8 | bytes[at + i];
    return value;
  }
  uint16_t U16(size_t at) const { return static_cast<uint16_t>(Number(at, 2)); }
  uint32_t U32(size_t at) const { return static_cast<uint32_t>(Number(at, 4)); }
  Numbers Sub(size_t at, size_t size) const { return {bytes.Sub(at, size), big_endian}; }
};

// Calls take(code, value) for each option of a pcapng block, whose options begin at at.
template <typename Take>
void ForEachOption(const Numbers& block, size_t at, Take take) {
  while (at + 4 < block.bytes.size() && block.U16(at) != 0) {
    const size_t size = block.U16(at + 2);
    take(block.U16(at), block.Sub(at + 4, size));
    at += 4 + (size + 3) / 4 * 4;
  }
}
// Where the options of an enhanced packet begin.
inline size_t PacketOptions(const Numbers& block) {
  return kPacketData + (size_t{block.U32(20)} + 3) / 4 * 4;
}

inline std::string AtByte(uint64_t at) { return ", at byte " + std::to_string(at); }

}  // namespace wire::record_format
