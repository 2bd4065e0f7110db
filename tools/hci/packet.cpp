#include "tools/hci/packet.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "tools/base/failure.h"

namespace bthalctl {
namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const int lower = std::tolower(static_cast<unsigned char>(c));
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

}  // namespace

const char* TypeName(PacketType type) {
  switch (type) {
    case PacketType::kCommand:
      return "CMD";
    case PacketType::kAcl:
      return "ACL";
    case PacketType::kSco:
      return "SCO";
    case PacketType::kEvent:
      return "EVT";
    case PacketType::kIso:
      return "ISO";
  }
  return "???";
}

std::optional<size_t> HeaderSize(uint8_t type) {
  switch (type) {
    case 1:
    case 3:
      return 3;
    case 2:
    case 5:
      return 4;
    case 4:
      return 2;
    default:
      return std::nullopt;
  }
}

size_t PacketSize(PacketType type, const uint8_t* header) {
  switch (type) {
    case PacketType::kCommand:
    case PacketType::kSco:
      return 3u + header[2];
    case PacketType::kEvent:
      return 2u + header[1];
    case PacketType::kAcl:
      return 4u + header[2] + 256u * header[3];
    case PacketType::kIso:
      return 4u + header[2] + 256u * (header[3] & 0x3Fu);
  }
  return 0;
}

uint64_t Reader::Little(size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) {
    if (left_ == 0) {
      ok_ = false;
      break;
    }
    value |= static_cast<uint64_t>(*data_++) << (8 * i);
    --left_;
  }
  return value;
}

Bytes Reader::Take(size_t size) {
  if (size > left_) {
    ok_ = false;
    size = left_;
  }
  Bytes taken(data_, data_ + size);
  data_ += size;
  left_ -= size;
  return taken;
}

Writer& Writer::Little(uint64_t value, size_t size) {
  for (size_t i = 0; i < size; ++i) bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
  return *this;
}

Writer& Writer::Append(const Bytes& bytes) {
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  return *this;
}

Packet CommandPacket(uint16_t opcode, const Bytes& parameters) {
  if (parameters.size() > 255) throw Failure("a command takes at most 255 bytes of parameters");
  const auto size = static_cast<unsigned>(parameters.size());
  return {PacketType::kCommand, Writer().U16(opcode).U8(size).Append(parameters).Done()};
}

Packet DataPacket(PacketType type, uint16_t handle, unsigned flags, const Bytes& data) {
  Writer out;
  out.U16((handle & 0x0FFFu) | flags << 12);
  out.Little(data.size(), type == PacketType::kSco ? 1 : 2);
  return {type, out.Append(data).Done()};
}

std::string AddressText(const Bytes& address) {
  std::string text;
  char digits[4];
  for (size_t i = address.size(); i-- > 0;) {
    std::snprintf(digits, sizeof digits, i == 0 ? "%02X" : "%02X:", address[i]);
    text += digits;
  }
  return text;
}

std::optional<Bytes> ParseAddress(const std::string& text) {
  if (text.size() != 17) return std::nullopt;
  Bytes address;
  for (size_t i = 0; i < text.size(); i += 3) {
    const int high = HexDigit(text[i]);
    const int low = HexDigit(text[i + 1]);
    if (high < 0 || low < 0 || (i + 2 < text.size() && text[i + 2] != ':')) return std::nullopt;
    address.insert(address.begin(), static_cast<uint8_t>(high * 16 + low));
  }
  return address;
}

Bytes ParseHex(const std::string& text) {
  Bytes bytes;
  for (size_t i = 0; i < text.size();) {
    if (std::isspace(static_cast<unsigned char>(text[i])) || text[i] == ':' || text[i] == ',') {
      ++i;
      continue;
    }
    if (text[i] == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
      i += 2;
      if (i == text.size()) throw Failure(ExitCode::kUsage, "nothing after 0x in \"" + text + "\"");
    }
    const int high = HexDigit(text[i]);
    const int low = i + 1 < text.size() ? HexDigit(text[i + 1]) : -1;
    if (high < 0 || low < 0) {
      throw Failure(ExitCode::kUsage, "\"" + text + "\" is no hex at character " +
                                          std::to_string(i + 1) + ": bytes have two digits");
    }
    bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    i += 2;
  }
  return bytes;
}

std::string HexText(const Bytes& bytes, size_t limit) {
  std::string text;
  char digits[4];
  for (size_t i = 0; i < std::min(bytes.size(), limit); ++i) {
    std::snprintf(digits, sizeof digits, i == 0 ? "%02X" : " %02X", bytes[i]);
    text += digits;
  }
  if (bytes.size() > limit) text += " ... (" + std::to_string(bytes.size()) + " bytes)";
  return text;
}

}  // namespace bthalctl
