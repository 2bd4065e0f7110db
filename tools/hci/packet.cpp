#include "tools/hci/packet.h"

#include <optional>

#include "tools/base/failure.h"

namespace bthalctl {

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

}  // namespace bthalctl
