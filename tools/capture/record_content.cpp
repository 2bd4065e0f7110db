#include "tools/capture/record_content.h"

#include <algorithm>
#include <string_view>

#include "tools/base/failure.h"
#include "tools/capture/record_format.h"

namespace bthalctl {
namespace {

using record_format::Big;
using record_format::ForEachOption;
using wire::ByteView;

constexpr uint32_t kLittleEndian = 0x1A2B3C4D;
constexpr uint16_t kH4WithDirection = 201;
constexpr uint32_t kH4 = 1002, kMonitorSocket = 2001;
constexpr uint64_t kNanoseconds = 1'000'000'000;
constexpr uint64_t kYear1970 = 0x00DCDDB30F2F8000;  // in microseconds since the year 0

// if_tsresol: a negative power of ten, or of two.
uint64_t UnitsPerSecond(uint8_t resolution) {
  const bool binary = (resolution & 0x80) != 0;
  uint64_t units = 1;
  for (unsigned power = resolution & 0x7F; power > 0 && units < UINT64_MAX / 10; --power) {
    units *= binary ? 2 : 10;
  }
  return units;
}

int64_t Nanoseconds(uint64_t time, uint64_t units_per_second) {
  const double rest = static_cast<double>(time % units_per_second) * 1e9;
  return static_cast<int64_t>(
      time / units_per_second * kNanoseconds +
      static_cast<uint64_t>(rest / static_cast<double>(units_per_second) + 0.5));
}

// What the service writes for a loss, which the count of the record tells as well.
bool TellsOfLoss(const std::string& note) {
  constexpr std::string_view kEnd = " missing here";
  return note.size() >= kEnd.size() &&
         note.compare(note.size() - kEnd.size(), kEnd.size(), kEnd) == 0;
}

// One line of plain characters.
void AddNote(ByteView text, std::vector<std::string>* notes) {
  std::string note = text.Text();
  note.erase(std::min(note.find('\0'), note.size()));
  for (char& c : note) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = ' ';
  }
  if (!TellsOfLoss(note)) notes->push_back(std::move(note));
}

Packet H4Packet(ByteView bytes) {
  return {static_cast<PacketType>(bytes[0]), bytes.From(1).Copy()};
}

}  // namespace

RecordContent RecordReader::Read(const CaptureRecord& record) {
  if (record.kind == RecordKind::kHead) {
    ReadHead(record.bytes);
    return {};
  }
  return format_ == Format::kPcapng ? ReadPcapng(record) : ReadBtsnoop(record);
}

void RecordReader::ReadHead(ByteView bytes) {
  if (format_ == Format::kUnknown && bytes.size() == record_format::kBtsnoopHead) {
    const uint64_t data_link = Big(bytes, 12, 4);
    if (data_link != kH4 && data_link != kMonitorSocket) {
      throw Failure("a capture with data link " + std::to_string(data_link) +
                    ": those with 1002 and 2001 can be shown");
    }
    format_ = data_link == kH4 ? Format::kBtsnoop : Format::kMonitor;
    return;
  }
  if (format_ == Format::kBtsnoop || format_ == Format::kMonitor) return;
  if (bytes.U32(0) == record_format::kSectionHeader) {
    if (bytes.U32(8) != kLittleEndian) throw Failure("a big-endian pcapng file cannot be shown");
    format_ = Format::kPcapng;
    units_per_second_.clear();
  } else if (bytes.U32(0) == record_format::kInterface) {
    if (bytes.U16(8) != kH4WithDirection) {
      throw Failure("a capture with link type " + std::to_string(bytes.U16(8)) +
                    ": those with 201 can be shown");
    }
    uint64_t units = 1'000'000;
    ForEachOption(bytes, 16, [&](uint16_t code, ByteView value) {
      if (code == 9) units = UnitsPerSecond(value[0]);
    });
    units_per_second_.push_back(units);
  }
}

RecordContent RecordReader::ReadPcapng(const CaptureRecord& record) const {
  const ByteView block = record.bytes;
  const size_t interface = block.U32(8);
  const size_t size = block.U32(20);
  if (interface >= units_per_second_.size() || block.size() < record_format::kPacketData ||
      size < 5 || size > block.size() - record_format::kPacketData) {
    throw Failure("the capture is damaged");
  }
  RecordContent content;
  content.time_ns =
      Nanoseconds(uint64_t{block.U32(12)} << 32 | block.U32(16), units_per_second_[interface]);
  content.from_controller = Big(block, record_format::kPacketData, 4) != 0;
  content.packet = H4Packet(block.Sub(32, size - 4));
  content.lost = record.lost;
  ForEachOption(block, record_format::PacketOptions(block), [&](uint16_t code, ByteView value) {
    if (code == 1) AddNote(value, &content.notes);
  });
  return content;
}

RecordContent RecordReader::ReadBtsnoop(const CaptureRecord& record) const {
  const ByteView bytes = record.bytes;
  const ByteView packet = bytes.From(record_format::kBtsnoopRecord);
  RecordContent content;
  content.time_ns = static_cast<int64_t>((Big(bytes, 16, 8) - kYear1970) * 1000);
  content.lost = record.lost;
  const uint64_t flags = Big(bytes, 8, 4);
  if (format_ == Format::kBtsnoop) {
    content.from_controller = (flags & 1) != 0;
    content.packet = H4Packet(packet);
    return content;
  }
  const auto opcode = static_cast<uint16_t>(flags);
  // H4 types to the controller and from it, by opcode.
  constexpr struct {
    uint16_t opcode;
    PacketType type;
    bool from_controller;
  } kKinds[] = {
      {2, PacketType::kCommand, false}, {3, PacketType::kEvent, true}, {4, PacketType::kAcl, false},
      {5, PacketType::kAcl, true},      {6, PacketType::kSco, false},  {7, PacketType::kSco, true},
      {18, PacketType::kIso, false},    {19, PacketType::kIso, true},
  };
  for (const auto& kind : kKinds) {
    if (kind.opcode != opcode) continue;
    content.packet = Packet{kind.type, packet.Copy()};
    content.from_controller = kind.from_controller;
  }
  if (opcode == record_format::kMonitorNote) AddNote(packet, &content.notes);
  // Priority, length of the name, name, text.
  if (opcode == record_format::kMonitorUserLog)
    AddNote(packet.From(size_t{2} + packet[1]), &content.notes);
  return content;
}

}  // namespace bthalctl
