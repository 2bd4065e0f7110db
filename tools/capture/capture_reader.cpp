#include "tools/capture/capture_reader.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "tools/base/failure.h"
#include "tools/capture/record_format.h"

namespace bthalctl {
namespace {

using record_format::Big;
using record_format::ForEachOption;
using wire::ByteView;
using wire::PacketType;

constexpr uint32_t kLittleEndian = 0x1A2B3C4D;
constexpr uint16_t kH4 = 187, kH4WithDirection = 201;
constexpr uint64_t kH4Link = 1002, kMonitorLink = 2001;
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
  const auto ns = std::llround(rest / static_cast<double>(units_per_second));
  return static_cast<int64_t>(time / units_per_second * kNanoseconds + static_cast<uint64_t>(ns));
}

// A packet behind its type byte.
wire::Packet PacketOf(ByteView data) {
  if (wire::LayoutOf(data[0]) == nullptr) {
    throw Failure("the capture has a packet of type " + std::to_string(data[0]));
  }
  return {static_cast<PacketType>(data[0]), data.From(1).Copy()};
}

}  // namespace

void CaptureReader::Put(ByteView bytes) {
  splitter_.Put(bytes);
  while (const std::optional<CaptureRecord> record = splitter_.Next()) Take(*record);
}

std::optional<Captured> CaptureReader::Next() {
  if (items_.empty()) return std::nullopt;
  Captured item = std::move(items_.front());
  items_.pop_front();
  return item;
}

void CaptureReader::Take(const CaptureRecord& record) {
  if (record.kind == RecordKind::kHead) {
    TakeHead(record.bytes);
  } else if (data_link_ == 0) {
    TakePcapng(record);
  } else {
    TakeBtsnoop(record);
  }
}

void CaptureReader::TakeHead(ByteView bytes) {
  const bool first = !std::exchange(begun_, true);
  if (first && bytes.U32(0) != record_format::kSectionHeader) {
    data_link_ = Big(bytes, 12, 4);
    if (data_link_ != kH4Link && data_link_ != kMonitorLink) {
      throw Failure("the capture has data link " + std::to_string(data_link_) +
                    "; only 1002 and 2001 are understood");
    }
  }
  if (data_link_ != 0) return;
  if (bytes.U32(0) == record_format::kSectionHeader) {
    if (bytes.U32(8) != kLittleEndian) throw Failure("the capture is a big-endian pcapng file");
    interfaces_.clear();
  } else if (bytes.U32(0) == record_format::kInterface) {
    Interface made;
    made.link_type = bytes.U16(8);
    ForEachOption(bytes, 16, [&](uint16_t code, ByteView value) {
      if (code == record_format::kTimeResolution) made.units_per_second = UnitsPerSecond(value[0]);
    });
    if (made.link_type != kH4 && made.link_type != kH4WithDirection) {
      throw Failure("the capture has link type " + std::to_string(made.link_type) +
                    "; only 187 and 201 are understood");
    }
    interfaces_.push_back(made);
  }
}

void CaptureReader::TakePcapng(const CaptureRecord& record) {
  const ByteView block = record.bytes;
  const size_t number = block.U32(8);
  const size_t size = block.U32(20);
  if (number >= interfaces_.size() || block.size() < record_format::kPacketData ||
      size > block.size() - record_format::kPacketData) {
    throw Failure("the capture is damaged");
  }
  const Interface& interface = interfaces_[number];
  Captured item;
  item.time_ns =
      Nanoseconds(uint64_t{block.U32(12)} << 32 | block.U32(16), interface.units_per_second);
  item.lost = record.lost;
  ByteView data = block.Sub(record_format::kPacketData, size);
  uint64_t flags = 0;
  ForEachOption(block, record_format::PacketOptions(block), [&](uint16_t code, ByteView value) {
    if (code == record_format::kComment) AddNote(item.time_ns, value);
    if (code == record_format::kPacketFlags) flags = value.U32(0);
  });
  if (interface.link_type == kH4WithDirection) {
    item.from_controller = Big(data, 0, 4) != 0;
    data = data.From(4);
  } else {
    item.from_controller = data[0] == static_cast<uint8_t>(PacketType::kEvent) || (flags & 3) == 1;
  }
  if (data.empty()) return;
  item.packet = PacketOf(data);
  items_.push_back(std::move(item));
}

void CaptureReader::TakeBtsnoop(const CaptureRecord& record) {
  const ByteView bytes = record.bytes;
  const ByteView data = bytes.From(record_format::kBtsnoopRecord);
  const uint64_t flags = Big(bytes, 8, 4);
  Captured item;
  item.time_ns = static_cast<int64_t>((Big(bytes, 16, 8) - kYear1970) * 1000);
  item.lost = record.lost;
  if (data_link_ == kH4Link) {
    if (data.empty()) return;
    item.from_controller = (flags & 1) != 0;
    item.packet = PacketOf(data);
    items_.push_back(std::move(item));
    return;
  }
  const auto opcode = static_cast<uint16_t>(flags);
  if (opcode == record_format::kMonitorNote) return AddNote(item.time_ns, data);
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
    item.packet = wire::Packet{kind.type, data.Copy()};
    item.from_controller = kind.from_controller;
    items_.push_back(std::move(item));
    return;
  }
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

void ReadCapture(const std::string& path, const std::function<bool(const Captured&)>& take) {
  const ::android::base::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.ok()) throw Failure(WithErrno("cannot read " + path));
  CaptureReader reader;
  std::array<uint8_t, 65536> buffer;
  for (;;) {
    const ssize_t n = TEMP_FAILURE_RETRY(read(file.get(), buffer.data(), buffer.size()));
    if (n < 0) throw Failure(WithErrno("cannot read " + path));
    if (n == 0) break;
    reader.Put(ByteView(buffer.data(), static_cast<size_t>(n)));
    while (const std::optional<Captured> item = reader.Next()) {
      if (!take(*item)) return;
    }
  }
  if (!reader.whole()) throw Failure(path + " ends within a record");
}

}  // namespace bthalctl
