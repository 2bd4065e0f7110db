// HCI packets as the service takes and gives them: a type, and the packet without its H4 type byte
// (Bluetooth Core 5.3, Vol 4, Part E, 5.4).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bthalctl {

using Bytes = std::vector<uint8_t>;

// The values are the H4 type bytes.
enum class PacketType : uint8_t { kCommand = 1, kAcl = 2, kSco = 3, kEvent = 4, kIso = 5 };

struct Packet {
  PacketType type = PacketType::kCommand;
  Bytes bytes;
};

const char* TypeName(PacketType type);

// Size of the header of a type and, once the header is there, of the whole packet. Nothing for a
// byte that is no packet type.
std::optional<size_t> HeaderSize(uint8_t type);
size_t PacketSize(PacketType type, const uint8_t* header);

// Reads a packet from its front. What is absent reads as 0, and ok() tells that it was.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data_(data), left_(size) {}
  explicit Reader(const Bytes& bytes) : Reader(bytes.data(), bytes.size()) {}

  uint8_t U8() { return static_cast<uint8_t>(Little(1)); }
  int8_t I8() { return static_cast<int8_t>(Little(1)); }
  uint16_t U16() { return static_cast<uint16_t>(Little(2)); }
  uint64_t Little(size_t size);
  // The next size bytes, or what is left of them.
  Bytes Take(size_t size);
  Bytes Rest() { return Take(left_); }
  void Skip(size_t size) { Take(size); }
  size_t left() const { return left_; }
  bool ok() const { return ok_; }

 private:
  const uint8_t* data_;
  size_t left_;
  bool ok_ = true;
};

// Builds a packet, little-endian.
class Writer {
 public:
  Writer& U8(unsigned value) { return Little(value, 1); }
  Writer& U16(unsigned value) { return Little(value, 2); }
  Writer& Little(uint64_t value, size_t size);
  Writer& Append(const Bytes& bytes);
  Bytes Done() { return std::move(bytes_); }

 private:
  Bytes bytes_;
};

Packet CommandPacket(uint16_t opcode, const Bytes& parameters);
// Handle and flags in the first two bytes. flags: PB in bits 0-1, BC (ISO: TS) above.
Packet DataPacket(PacketType type, uint16_t handle, unsigned flags, const Bytes& data);
inline uint16_t HandleOf(const Packet& data) { return Reader(data.bytes).U16() & 0x0FFF; }

// A device address, least significant byte first, as it is on the air.
std::string AddressText(const Bytes& address);
// "AA:BB:CC:DD:EE:FF"; nothing if it is none.
std::optional<Bytes> ParseAddress(const std::string& text);

// Bytes in hex, as a user writes them: "01 02", "0102", "01:02", "0x01,0x02". Throws Failure with
// the place of the mistake.
Bytes ParseHex(const std::string& text);
std::string HexText(const Bytes& bytes, size_t limit = SIZE_MAX);

}  // namespace bthalctl
