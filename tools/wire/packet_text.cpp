#include "tools/wire/packet_text.h"

#include "tools/wire/code_names.h"
#include "tools/wire/codes.h"
#include "tools/wire/text.h"

namespace wire {
namespace {

std::string NameOrNumber(CodeKind kind, uint16_t code) {
  if (const CodeRow* const row = FindRow(kind, code)) return row->name;
  return HexCode(code, kind == CodeKind::kCommand ? 4 : 2);
}

std::string Answer(uint8_t event_code, uint16_t opcode, uint8_t status) {
  return NameOrNumber(CodeKind::kEvent, event_code) + " of " +
         NameOrNumber(CodeKind::kCommand, opcode) + ": " + NameOrNumber(CodeKind::kStatus, status);
}

std::string EventName(ByteView packet) {
  switch (packet[0]) {
    case event::kCommandComplete:
      return Answer(packet[0], packet.U16(3), packet[5]);
    case event::kCommandStatus:
      return Answer(packet[0], packet.U16(4), packet[2]);
    case event::kLeMeta:
      return NameOrNumber(CodeKind::kLeEvent, packet[2]);
    case event::kVendor:
      return NameOrNumber(CodeKind::kVendorEvent, packet[2]);
    default:
      return NameOrNumber(CodeKind::kEvent, packet[0]);
  }
}

}  // namespace

const char* TypeWord(PacketType type) {
  constexpr const char* kWords[] = {"command", "acl", "sco", "event", "iso"};
  return kWords[static_cast<size_t>(type) - 1];
}

std::string PacketName(PacketType type, ByteView packet) {
  if (type == PacketType::kCommand) return NameOrNumber(CodeKind::kCommand, packet.U16(0));
  return type == PacketType::kEvent ? EventName(packet) : "";
}

std::string PacketText(PacketType type, ByteView packet, size_t limit) {
  const std::string name = PacketName(type, packet);
  return std::string(TypeWord(type)) + " " + Hex(packet, limit) +
         (name.empty() ? "" : " (" + name + ")");
}

}  // namespace wire
