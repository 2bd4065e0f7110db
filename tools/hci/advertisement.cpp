#include "tools/hci/advertisement.h"

namespace bthalctl {
namespace {

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

}  // namespace

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
