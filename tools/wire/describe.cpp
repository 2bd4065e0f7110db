#include "tools/wire/describe.h"

#include "tools/wire/code_names.h"
#include "tools/wire/codes.h"
#include "tools/wire/fields.h"

namespace wire {
namespace {

// Connections never have these handles: the controller's EWP records come on them.
constexpr uint16_t kFirstRecordHandle = 0xD00, kLastRecordHandle = 0xEFF;
// The length of an event from which on a quality report has the longer layout.
constexpr size_t kLongQualityEvent = 248;
constexpr uint16_t kSignallingChannel = 1, kAttChannel = 4, kLeSignallingChannel = 5,
                   kSmpChannel = 6, kSmpOverBrEdrChannel = 7;

std::string Tail(ByteView rest) {
  return rest.empty() ? "" : " [" + HexText(rest, kShownBytes) + "]";
}

// ": " and the fields, then what they leave. end: what to say when they are cut off.
std::string Fields(const char* fields, ByteView bytes, const char* end = " (ends early)") {
  const FieldsText fields_text = DescribeFields(fields, bytes);
  std::string text = fields_text.text.empty() ? "" : ": " + fields_text.text;
  if (!fields_text.whole) text += end;
  return text + Tail(bytes.From(fields_text.size));
}

const char* FieldsOf(const CodeRow* row) { return row != nullptr ? row->fields : ""; }

std::string CommandText(ByteView packet) {
  const uint16_t opcode = packet.U16(0);
  return OpcodeText(opcode) + Fields(FieldsOf(FindRow(CodeKind::kCommand, opcode)), packet.From(3));
}

// A failure's parameters are often left out.
std::string ReturnsText(const CodeRow* row, ByteView returns) {
  const std::string text = ": " + StatusText(returns[0]);
  const ByteView rest = returns.From(1);
  if (row == nullptr || (returns[0] != 0 && rest.empty())) return text + Tail(rest);
  const std::string fields = Fields(row->returns, rest);
  return text + (fields.rfind(": ", 0) == 0 ? ", " + fields.substr(2) : fields);
}

std::string CommandCompleteText(ByteView parameters) {
  if (parameters.size() < 3) return " (ends early)" + Tail(parameters);
  const uint16_t opcode = parameters.U16(1);
  std::string text = ": " + (opcode == 0 ? "no command" : OpcodeText(opcode));
  const ByteView returns = parameters.From(3);
  if (!returns.empty()) text += ReturnsText(FindRow(CodeKind::kCommand, opcode), returns);
  return parameters[0] == 0 ? text + ", no further commands" : text;
}

std::string CommandStatusText(ByteView parameters) {
  if (parameters.size() < 4) return " (ends early)" + Tail(parameters);
  const uint8_t status = parameters[0];
  return ": " + OpcodeText(parameters.U16(2)) + ": " +
         (status == 0 ? "pending" : StatusText(status)) +
         (parameters[1] == 0 ? ", no further commands" : "") + Tail(parameters.From(4));
}

// parameters: behind the length.
std::string VendorEventText(ByteView parameters) {
  if (parameters.empty()) return "Vendor (ends early)";
  const uint8_t code = parameters[0];
  std::string text = NameText(CodeKind::kVendorEvent, code, "vendor event");
  if (code == vendor_event::kQualityReport && parameters.size() > 1) {
    const bool is_long = parameters.size() + 2 >= kLongQualityEvent;
    const CodeRow* row =
        is_long ? FindRow(CodeKind::kQualityReport, parameters[1] | kLongQualityReport) : nullptr;
    if (row == nullptr) row = FindRow(CodeKind::kQualityReport, parameters[1]);
    if (row != nullptr) return text + ", " + row->name + Fields(row->fields, parameters.From(2));
  }
  return text + Fields(FieldsOf(FindRow(CodeKind::kVendorEvent, code)), parameters.From(1));
}

std::string EventText(ByteView packet) {
  const uint8_t code = packet[0];
  const ByteView parameters = packet.From(2);
  if (code == event::kVendor) return VendorEventText(parameters);
  if (code == event::kLeMeta && !parameters.empty()) {
    const uint8_t subevent = parameters[0];
    return NameText(CodeKind::kLeEvent, subevent, "LE event") +
           Fields(FieldsOf(FindRow(CodeKind::kLeEvent, subevent)), parameters.From(1));
  }
  const std::string name = NameText(CodeKind::kEvent, code, "event");
  if (code == event::kCommandComplete) return name + CommandCompleteText(parameters);
  if (code == event::kCommandStatus) return name + CommandStatusText(parameters);
  return name + Fields(FieldsOf(FindRow(CodeKind::kEvent, code)), parameters);
}

// A PDU that begins with its code.
std::string PduText(CodeKind kind, const char* protocol, ByteView pdu, const char* end) {
  if (pdu.empty()) return protocol + std::string(" without a code");
  const std::string name = NameText(kind, pdu[0], "code");
  return protocol + (" " + name) + Fields(FieldsOf(FindRow(kind, pdu[0])), pdu.From(1), end);
}

// One packet of signalling or several.
std::string SignallingText(ByteView packets, const char* end) {
  std::string text = "L2CAP";
  for (bool first = true; !packets.empty(); first = false) {
    if (packets.size() < 4) return text + end + Tail(packets);
    const CodeRow* const row = FindRow(CodeKind::kSignalling, packets[0]);
    text += first ? " " : "; ";
    text += NameText(CodeKind::kSignalling, packets[0], "code") + " " + std::to_string(packets[1]) +
            Fields(FieldsOf(row), packets.Sub(4, packets.U16(2)), end);
    packets = packets.From(size_t{4} + packets.U16(2));
  }
  return text;
}

// What L2CAP carries in the packet that begins a frame.
std::string FrameText(ByteView frame) {
  const size_t size = frame.U16(0);
  const uint16_t channel = frame.U16(2);
  frame = frame.From(4);
  const bool cut = size > frame.size();
  const char* const end = cut ? " (goes on)" : " (ends early)";
  std::string text;
  switch (channel) {
    case kAttChannel:
      text = PduText(CodeKind::kAtt, "ATT", frame, end);
      break;
    case kSmpChannel:
    case kSmpOverBrEdrChannel:
      text = PduText(CodeKind::kSmp, "SMP", frame, end);
      break;
    case kSignallingChannel:
    case kLeSignallingChannel:
      text = SignallingText(frame, end);
      break;
    default:
      text = "channel " + HexCode(channel, 4) + Tail(frame);
  }
  return (cut ? "first of " + std::to_string(size) + " bytes: " : "") + text;
}

std::string AclText(uint16_t handle, unsigned flags, ByteView data) {
  const bool is_record = handle >= kFirstRecordHandle && handle <= kLastRecordHandle;
  if (is_record) return "EWP record" + Tail(data);
  if ((flags & 3) == 1) return "goes on" + Tail(data);
  return data.size() < 4 ? "no L2CAP header" + Tail(data) : FrameText(data);
}

// flags: of the fragment (first 0, complete 2) in two bits, then whether there is a time.
std::string IsoText(unsigned flags, ByteView data) {
  if ((flags & 1) != 0) return "goes on" + Tail(data);
  const char* const fields = (flags & 4) != 0 ? "u32us:time u16:sequence x16" : "u16:sequence x16";
  FieldsText head = DescribeFields(fields, data);
  if (!head.whole) return "(ends early)" + Tail(data);
  const uint16_t sdu = data.U16(head.size - 2);
  static constexpr const char* kStates[] = {"", ", invalid", ", lost", ", status 3"};
  return head.text.substr(0, head.text.rfind(", ")) + ", SDU " + std::to_string(sdu & 0x0FFF) +
         " bytes" + kStates[sdu >> 14] + Tail(data.From(head.size));
}

std::string DataText(PacketType type, ByteView packet, size_t header) {
  const uint16_t head = packet.U16(0);
  const unsigned flags = head >> 12;
  const uint16_t handle = head & 0x0FFF;
  const ByteView data = packet.From(header);
  std::string text = "handle " + HexCode(handle, 3) + ", " + std::to_string(data.size()) + " bytes";
  if (data.empty()) return text;
  if (type == PacketType::kAcl) return text + ": " + AclText(handle, flags, data);
  if (type == PacketType::kIso) return text + ": " + IsoText(flags, data);
  return text + (flags != 0 ? ", status " + std::to_string(flags & 3) : "") + Tail(data);
}

}  // namespace

const char* TypeName(PacketType type) {
  static const char* const kNames[] = {"CMD", "ACL", "SCO", "EVT", "ISO"};
  const auto number = static_cast<size_t>(type);
  return number >= 1 && number <= 5 ? kNames[number - 1] : "???";
}

std::string Describe(const Packet& packet) {
  const std::string type = std::string(TypeName(packet.type)) + " ";
  const PacketLayout* const layout = LayoutOf(static_cast<uint8_t>(packet.type));
  const ByteView bytes = packet.bytes;
  if (layout == nullptr || bytes.size() < layout->header) {
    return type + "shorter than its header" + Tail(bytes);
  }
  const size_t size = PacketSize(*layout, bytes);
  if (size != bytes.size()) {
    return type + "says it has " + std::to_string(size) + " bytes but has " +
           std::to_string(bytes.size()) + Tail(bytes);
  }
  if (packet.type == PacketType::kCommand) return type + CommandText(bytes);
  if (packet.type == PacketType::kEvent) return type + EventText(bytes);
  return type + DataText(packet.type, bytes, layout->header);
}

}  // namespace wire
