#include "tools/capture/capture_reader.h"

#include <utility>

#include "tools/base/failure.h"

namespace bthalctl {
namespace {

uint64_t Big(wire::ByteView bytes, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value = value << 8 | bytes[at + i];
  return value;
}

}  // namespace

void CaptureReader::Put(wire::ByteView bytes) {
  splitter_.Put(bytes);
  while (const std::optional<CaptureRecord> record = splitter_.Next()) Take(*record);
}

void CaptureReader::Take(const CaptureRecord& record) {
  if (record.kind == RecordKind::kHead) return;
  const wire::ByteView bytes(record.bytes);
  constexpr uint64_t kYear1970 = 0x00DCDDB30F2F8000;
  Captured item;
  item.lost = record.lost;
  item.time_ns = static_cast<int64_t>(Big(bytes, 16, 8) - kYear1970) * 1000;
  const wire::ByteView data = bytes.From(24);
  if (record.kind == RecordKind::kNote) {
    item.note = data.Sub(0, data.size() - 1).Text();
  } else {
    const uint64_t opcode = Big(bytes, 8, 4) & 0xFFFF;
    constexpr uint8_t kTypes[][2] = {{0, 0}, {0, 0}, {1, 0}, {4, 1},
                                     {2, 0}, {2, 1}, {3, 0}, {3, 1}};
    const uint8_t type = opcode < 8 ? kTypes[opcode][0] : opcode == 18 || opcode == 19 ? 5 : 0;
    if (type == 0) return;
    item.from_controller = opcode < 8 ? kTypes[opcode][1] != 0 : opcode == 19;
    item.packet = wire::Packet{static_cast<wire::PacketType>(type), data.Copy()};
  }
  items_.push_back(std::move(item));
}

std::optional<Captured> CaptureReader::Next() {
  if (items_.empty()) return std::nullopt;
  Captured item = std::move(items_.front());
  items_.pop_front();
  return item;
}

}  // namespace bthalctl
