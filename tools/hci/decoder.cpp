#include "tools/hci/decoder.h"

#include <cstdio>

#include "tools/hci/names.h"
#include "tools/hci/packet.h"

namespace bthalctl {
namespace {

constexpr size_t kShownBytes = 24;

std::string Hex(unsigned value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*X", digits, value);
  return text;
}

std::string Tail(Reader& in) {
  return in.left() == 0 ? "" : " [" + HexText(in.Rest(), kShownBytes) + "]";
}

// Complete or shortened local name (Core Specification Supplement, A.1.2); other characters than
// printable ones are "?".
std::string NameIn(const Bytes& data) {
  std::string name;
  Reader in(data);
  while (in.left() > 1) {
    const uint8_t length = in.U8();
    if (length == 0) break;
    const uint8_t type = in.U8();
    const Bytes value = in.Take(length - 1u);
    if (type != 0x08 && type != 0x09) continue;
    name.clear();
    for (const uint8_t c : value) name += c >= 0x20 && c != 0x7F ? static_cast<char>(c) : '?';
  }
  return name;
}

void CommandComplete(Reader& in, std::string& out) {
  in.Skip(1);
  const uint16_t opcode = in.U16();
  out += ": " + (opcode == 0 ? "no command" : OpcodeText(opcode));
  if (in.left() > 0) out += ": " + StatusText(in.U8());
}

void CommandStatus(Reader& in, std::string& out) {
  const uint8_t status = in.U8();
  in.Skip(1);
  const uint16_t opcode = in.U16();
  out += ": " + OpcodeText(opcode) + ": " + (status == 0 ? "pending" : StatusText(status));
}

void ConnectionComplete(Reader& in, std::string& out) {
  out += ": " + StatusText(in.U8());
  out += ", handle " + Hex(in.U16() & 0x0FFF, 3);
  out += ", " + AddressText(in.Take(6));
  const uint8_t link = in.U8();
  out += link == 1 ? ", ACL" : link == 0 ? ", SCO" : ", eSCO";
  in.Skip(1);
}

void DisconnectionComplete(Reader& in, std::string& out) {
  out += ": " + StatusText(in.U8());
  out += ", handle " + Hex(in.U16() & 0x0FFF, 3);
  out += ", " + StatusText(in.U8());
}

void CompletedPackets(Reader& in, std::string& out) {
  for (unsigned left = in.U8(); left > 0 && in.ok(); --left) {
    const uint16_t handle = in.U16() & 0x0FFF;
    out += ": handle " + Hex(handle, 3) + " " + std::to_string(in.U16());
  }
}

void HardwareError(Reader& in, std::string& out) { out += ": code " + Hex(in.U8(), 2); }

void LoopbackCommand(Reader& in, std::string& out) {
  out += ": " + OpcodeText(in.U16());
  in.Skip(1);
}

void LeConnectionComplete(Reader& in, std::string& out) {
  out += ": " + StatusText(in.U8());
  out += ", handle " + Hex(in.U16() & 0x0FFF, 3);
  out += in.U8() == 0 ? ", central" : ", peripheral";
  const uint8_t kind = in.U8();
  out += ", " + AddressText(in.Take(6)) + (kind == 0 ? " (public)" : " (random)");
}

// The function that describes an event's parameters, by its code.
struct Details {
  uint8_t code;
  void (*describe)(Reader& in, std::string& out);
};
constexpr Details kEventDetails[] = {
    {event::kConnectionComplete, ConnectionComplete},
    {event::kDisconnectionComplete, DisconnectionComplete},
    {event::kCommandComplete, CommandComplete},
    {event::kCommandStatus, CommandStatus},
    {event::kHardwareError, HardwareError},
    {event::kNumberOfCompletedPackets, CompletedPackets},
    {event::kLoopbackCommand, LoopbackCommand},
};
constexpr Details kLeEventDetails[] = {
    {le_event::kConnectionComplete, LeConnectionComplete},
    {le_event::kEnhancedConnectionComplete, LeConnectionComplete},
};

template <size_t n>
void Detail(const Details (&table)[n], uint8_t code, Reader& in, std::string& out) {
  for (const Details& row : table) {
    if (row.code == code) row.describe(in, out);
  }
}

std::string DescribeEvent(const Packet& packet) {
  Reader in(packet.bytes);
  const uint8_t code = in.U8();
  in.Skip(1);
  std::string out;
  if (code == event::kLeMeta) {
    const uint8_t subevent = in.U8();
    out = LeEventName(subevent);
    const std::vector<Advertisement> reports = Advertisements(packet);
    if (!reports.empty()) {
      for (const Advertisement& a : reports) {
        out += ": " + AddressText(a.address) + (a.random ? " (random)" : " (public)");
        if (a.rssi != 127) out += " " + std::to_string(a.rssi) + " dBm";
        if (a.connectable) out += " connectable";
        if (!a.name.empty()) out += " \"" + a.name + "\"";
      }
      return out;
    }
    Detail(kLeEventDetails, subevent, in, out);
  } else if (code == event::kVendor) {
    out = VendorEventName(in.U8());
  } else {
    out = EventName(code);
    Detail(kEventDetails, code, in, out);
  }
  if (!in.ok()) return out + " (ends early)";
  return out + Tail(in);
}

std::string DescribeAcl(Reader& in) {
  const uint16_t head = in.U16();
  in.Skip(2);
  std::string out = "handle " + Hex(head & 0x0FFF, 3) + ", " + std::to_string(in.left()) + " bytes";
  const bool first = ((head >> 12) & 3) != 1;
  if (!first || in.left() < 4) return out + Tail(in);
  in.Skip(2);
  const uint16_t channel = in.U16();
  if (channel == 4 && in.left() > 0) {
    out += ": ATT " + AttName(in.U8());
    return out + Tail(in);
  }
  if ((channel == 1 || channel == 5) && in.left() > 0) {
    out += ": L2CAP " + SignallingName(in.U8());
    return out + Tail(in);
  }
  if ((channel == 6 || channel == 7) && in.left() > 0) {
    out += ": SMP " + SmpName(in.U8());
    return out + Tail(in);
  }
  return out + ": channel " + Hex(channel, 4) + Tail(in);
}

}  // namespace

std::string Describe(const Packet& packet) {
  std::string type = std::string(TypeName(packet.type)) + " ";
  const wire::PacketLayout* const layout = wire::LayoutOf(static_cast<uint8_t>(packet.type));
  if (layout == nullptr || packet.bytes.size() < layout->header) {
    return type + "shorter than its header [" + HexText(packet.bytes) + "]";
  }
  const size_t size = wire::PacketSize(*layout, packet.bytes);
  if (size != packet.bytes.size()) {
    return type + "says it has " + std::to_string(size) + " bytes but has " +
           std::to_string(packet.bytes.size()) + " [" + HexText(packet.bytes, kShownBytes) + "]";
  }
  Reader in(packet.bytes);
  switch (packet.type) {
    case PacketType::kCommand: {
      const uint16_t opcode = in.U16();
      in.Skip(1);
      return type + OpcodeText(opcode) + Tail(in);
    }
    case PacketType::kEvent:
      return type + DescribeEvent(packet);
    case PacketType::kAcl:
      return type + DescribeAcl(in);
    case PacketType::kSco:
    case PacketType::kIso: {
      const uint16_t head = in.U16();
      in.Skip(layout->header - 2);
      const std::string size_text = std::to_string(in.left());
      return type + "handle " + Hex(head & 0x0FFF, 3) + ", " + size_text + " bytes" + Tail(in);
    }
  }
  return type;
}

std::vector<Advertisement> Advertisements(const Packet& packet) {
  std::vector<Advertisement> reports;
  if (packet.type != PacketType::kEvent) return reports;
  Reader in(packet.bytes);
  if (in.U8() != event::kLeMeta) return reports;
  in.Skip(1);
  const uint8_t subevent = in.U8();
  const bool extended = subevent == le_event::kExtendedAdvertisingReport;
  if (subevent != le_event::kAdvertisingReport && !extended) return reports;
  for (unsigned left = in.U8(); left > 0; --left) {
    Advertisement report;
    if (extended) {
      const uint16_t kind = in.U16();
      report.connectable = (kind & 0x01) != 0;
      report.scan_response = (kind & 0x08) != 0;
    } else {
      const uint8_t kind = in.U8();
      report.connectable = kind <= 1;
      report.scan_response = kind == 4;
    }
    report.random = (in.U8() & 1) != 0;
    report.address = in.Take(6);
    if (extended) {
      in.Skip(4);
      report.rssi = in.I8();
      in.Skip(2 + 1 + 6);
      report.name = NameIn(in.Take(in.U8()));
    } else {
      report.name = NameIn(in.Take(in.U8()));
      report.rssi = in.I8();
    }
    if (!in.ok()) break;
    reports.push_back(std::move(report));
  }
  return reports;
}

}  // namespace bthalctl
