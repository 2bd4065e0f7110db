#include "tools/wire/capture_reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "tools/wire/record_format.h"

namespace wire {
namespace {

using record_format::AtByte;
using record_format::Numbers;

constexpr uint16_t kH4 = 187, kH4WithDirection = 201;
constexpr size_t kDirectionWord = 4;
constexpr uint64_t kNanoseconds = 1'000'000'000;
constexpr uint64_t kLatest = uint64_t{1} << 62;     // ns
constexpr uint64_t kYear1970 = 0x00DCDDB30F2F8000;  // in microseconds since the year 0

[[noreturn]] void Fail(const std::string& reason) { throw std::runtime_error(reason); }

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
  const uint64_t seconds = time / units_per_second;
  if (seconds >= kLatest / kNanoseconds) return static_cast<int64_t>(kLatest);
  const double rest = static_cast<double>(time % units_per_second) * 1e9;
  const auto ns = std::llround(rest / static_cast<double>(units_per_second));
  return static_cast<int64_t>(seconds * kNanoseconds) + ns;
}

// Of microseconds since the year 0.
int64_t BtsnoopNanoseconds(uint64_t time) {
  const uint64_t us = time > kYear1970 ? time - kYear1970 : 0;
  return static_cast<int64_t>(us < kLatest / 1000 ? us * 1000 : kLatest);
}

}  // namespace

std::optional<Captured> CaptureReader::Next() {
  while (items_.empty()) {
    const std::optional<CaptureRecord> record = splitter_.Next();
    if (!record) return std::nullopt;
    Take(*record);
  }
  Captured item = std::move(items_.front());
  items_.pop_front();
  return item;
}

void CaptureReader::Take(const CaptureRecord& record) {
  if (record.kind == RecordKind::kHead) {
    TakeHead(record);
  } else if (data_link_ == 0) {
    TakePcapng(record);
  } else {
    TakeBtsnoop(record);
  }
}

void CaptureReader::TakeHead(const CaptureRecord& record) {
  const Numbers head{record.bytes, record.big_endian};
  const bool first = !std::exchange(begun_, true);
  if (first && ByteView(record.bytes).U32(0) != record_format::kSectionHeader) {
    data_link_ = head.U32(12);
  }
  if (data_link_ != 0) return;
  switch (const uint32_t type = head.U32(0)) {
    case record_format::kSectionHeader:
      interfaces_.clear();
      break;
    case record_format::kInterface: {
      Interface made;
      made.link_type = head.U16(8);
      ForEachOption(head, 16, [&](uint16_t code, const Numbers& value) {
        if (code == record_format::kTimeResolution) {
          made.units_per_second = UnitsPerSecond(value.bytes[0]);
        }
      });
      interfaces_.push_back(made);
      break;
    }
    case record_format::kOldPacket:
    case record_format::kSimplePacket:
      Fail("a packet in a block of type " + std::to_string(type) + ", which is not read" +
           AtByte(record.at));
    default:
      break;  // nothing of a packet
  }
}

void CaptureReader::TakePcapng(const CaptureRecord& record) {
  const Numbers block{record.bytes, record.big_endian};
  const size_t number = block.U32(8), size = block.U32(20);
  if (number >= interfaces_.size() || record.bytes.size() < record_format::kPacketData + 4 ||
      size > record.bytes.size() - record_format::kPacketData - 4) {
    Fail("a damaged packet block" + AtByte(record.at));
  }
  const Interface& interface = interfaces_[number];
  if (interface.link_type != kH4 && interface.link_type != kH4WithDirection) {
    Fail("link type " + std::to_string(interface.link_type) +
         "; only 187 and 201, Bluetooth H4, are read");
  }
  Captured item;
  item.time_ns =
      Nanoseconds(uint64_t{block.U32(12)} << 32 | block.U32(16), interface.units_per_second);
  item.lost = record.lost;
  item.cut_short = block.U32(24) != size;
  ByteView data = block.bytes.Sub(record_format::kPacketData, size);
  uint32_t flags = 0;
  ForEachOption(block, PacketOptions(block), [&](uint16_t code, const Numbers& value) {
    if (code == record_format::kComment) AddNote(item.time_ns, value.bytes);
    if (code == record_format::kPacketFlags) flags = value.U32(0);
  });
  if (interface.link_type == kH4WithDirection) {
    item.from_controller = (data[3] & 1) != 0;  // big-endian in either byte order
    data = data.From(kDirectionWord);
  } else {
    item.from_controller = data[0] == static_cast<uint8_t>(PacketType::kEvent) || (flags & 3) == 1;
  }
  if (data.empty()) Fail("a damaged packet block" + AtByte(record.at));
  AddPacket(std::move(item), data[0], data.From(1));
}

void CaptureReader::TakeBtsnoop(const CaptureRecord& record) {
  const Numbers fields{record.bytes, true};
  const ByteView data = fields.bytes.From(record_format::kBtsnoopRecord);
  Captured item;
  item.time_ns = BtsnoopNanoseconds(fields.Number(16, 8));
  item.lost = record.lost;
  item.cut_short = fields.U32(0) != data.size();
  if (data_link_ == record_format::kH4Link) {
    item.from_controller = (fields.U32(8) & 1) != 0;
    AddPacket(std::move(item), data[0], data.From(1));
    return;
  }
  const uint16_t opcode = fields.U16(10);
  if (opcode == record_format::kMonitorNote) return AddNote(item.time_ns, data);
  constexpr struct {
    uint16_t opcode;
    uint8_t type;
    bool from_controller;
  } kKinds[] = {{2, 1, false}, {3, 4, true}, {4, 2, false},  {5, 2, true},
                {6, 3, false}, {7, 3, true}, {18, 5, false}, {19, 5, true}};
  for (const auto& kind : kKinds) {
    if (kind.opcode != opcode) continue;
    item.controller = fields.U16(8);
    item.from_controller = kind.from_controller;
    AddPacket(std::move(item), kind.type, data);
    return;
  }
}

void CaptureReader::AddPacket(Captured item, uint8_t type, ByteView bytes) {
  ++packets_;
  const auto foreign = item.from_controller ? PacketType::kCommand : PacketType::kEvent;
  if (LayoutOf(type) == nullptr || static_cast<PacketType>(type) == foreign) {
    Fail("packet " + std::to_string(packets_) + ", " +
         (item.from_controller ? "of the controller" : "of the host") + ", cannot be of type " +
         std::to_string(type));
  }
  item.packet = Packet{static_cast<PacketType>(type), bytes.Copy()};
  items_.push_back(std::move(item));
}

void CaptureReader::AddNote(int64_t time_ns, ByteView text) {
  Captured item;
  item.time_ns = time_ns;
  item.note = text.Text();
  item.note.erase(std::min(item.note.find('\0'), item.note.size()));
  for (char& c : item.note) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = ' ';
  }
  items_.push_back(std::move(item));
}

void ForEachCaptured(const std::string& path, const std::function<bool(const Captured&)>& take) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rbe"),
                                                             std::fclose);
  if (file == nullptr) Fail(path + ": " + std::strerror(errno));
  CaptureReader reader;
  // The next item; none at the end of the file.
  const auto next = [&]() -> std::optional<Captured> {
    std::array<uint8_t, 65536> buffer;
    try {
      for (;;) {
        if (std::optional<Captured> item = reader.Next()) return item;
        const size_t count = std::fread(buffer.data(), 1, buffer.size(), file.get());
        if (count == 0 && std::ferror(file.get()) != 0) Fail(std::strerror(errno));
        if (count == 0) break;
        reader.Put({buffer.data(), count});
      }
      reader.End();
      return std::nullopt;
    } catch (const std::runtime_error& error) {
      Fail(path + ": " + error.what());
    }
  };
  while (const std::optional<Captured> item = next()) {
    if (!take(*item)) return;
  }
}

}  // namespace wire
