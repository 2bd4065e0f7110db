#include "tools/hci/packet.h"

#include <algorithm>
#include <cctype>

#include "tools/base/failure.h"

namespace bthalctl {

const char* TypeName(PacketType type) {
  static const char* const kNames[] = {"CMD", "ACL", "SCO", "EVT", "ISO"};
  const auto number = static_cast<size_t>(type);
  return number >= 1 && number <= 5 ? kNames[number - 1] : "???";
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

Bytes ParseHex(const std::string& text) {
  std::string mistake;
  const std::optional<Bytes> bytes = wire::ParseHex(text, &mistake);
  if (!bytes) throw Failure(ExitCode::kUsage, mistake);
  return *bytes;
}

std::string HexText(const Bytes& bytes, size_t limit) {
  std::string text = wire::Hex(ByteView(bytes).Sub(0, limit));
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  if (bytes.size() > limit) text += " ... (" + std::to_string(bytes.size()) + " bytes)";
  return text;
}

}  // namespace bthalctl
