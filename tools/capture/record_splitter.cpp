#include "tools/capture/record_splitter.h"

#include "tools/base/failure.h"

namespace bthalctl {
namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kEnhancedPacket = 6;
constexpr size_t kLongestRecord = 1 << 20;
constexpr size_t kBtsnoopHead = 16;    // of a file
constexpr size_t kBtsnoopRecord = 24;  // before the bytes of a record
constexpr uint16_t kMonitorNewIndex = 0, kMonitorOpenIndex = 8, kMonitorNote = 12;

uint32_t Big32(wire::ByteView bytes, size_t at) {
  return static_cast<uint32_t>(bytes[at] << 24 | bytes[at + 1] << 16 | bytes[at + 2] << 8 |
                               bytes[at + 3]);
}

bool IsBtsnoop(wire::ByteView bytes) {
  return bytes.size() > 7 && bytes.Sub(0, 7).Text() == "btsnoop" && bytes[7] == 0;
}

// Packets lost before a packet block; 0 without that option.
uint64_t DropCount(wire::ByteView block) {
  constexpr uint16_t kDropCount = 4;
  const size_t end = block.size() - 4;
  for (size_t at = 28 + (block.U32(20) + 3) / 4 * 4; at + 4 <= end;) {
    if (block.U16(at) == 0) break;
    if (block.U16(at) == kDropCount) return block.Little(at + 4, 8);
    at += 4 + (block.U16(at + 2) + size_t{3}) / 4 * 4;
  }
  return 0;
}

}  // namespace

bool RecordSplitter::IsCapture(wire::ByteView bytes) {
  return bytes.U32(0) == kSectionHeader || IsBtsnoop(bytes);
}

void RecordSplitter::Put(wire::ByteView bytes) {
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(at_));
  at_ = 0;
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

void RecordSplitter::FindFormat() {
  const wire::ByteView rest = wire::ByteView(bytes_).From(at_);
  if (rest.U32(0) == kSectionHeader) {
    format_ = Format::kPcapng;
  } else if (IsBtsnoop(rest)) {
    format_ = Big32(rest, 12) == 2001 ? Format::kMonitor : Format::kBtsnoop;
  } else {
    throw Failure("the file is no capture");
  }
}

CaptureRecord RecordSplitter::Take(size_t size) {
  CaptureRecord record;
  const auto begin = bytes_.begin() + static_cast<ptrdiff_t>(at_);
  record.bytes.assign(begin, begin + static_cast<ptrdiff_t>(size));
  at_ += size;
  return record;
}

CaptureRecord RecordSplitter::Pcapng(size_t size) {
  CaptureRecord record = Take(size);
  if (wire::ByteView(record.bytes).U32(0) == kEnhancedPacket) {
    record.kind = RecordKind::kPacket;
    record.lost = DropCount(record.bytes);
  }
  return record;
}

CaptureRecord RecordSplitter::Btsnoop(size_t size) {
  CaptureRecord record = Take(size);
  record.kind = RecordKind::kPacket;
  if (format_ == Format::kMonitor) {
    const uint32_t opcode = Big32(record.bytes, 8) & 0xFFFF;
    if (opcode == kMonitorNewIndex || opcode == kMonitorOpenIndex) record.kind = RecordKind::kHead;
    if (opcode == kMonitorNote) record.kind = RecordKind::kNote;
  }
  const uint32_t drops = Big32(record.bytes, 12);
  record.lost = drops - drops_;
  drops_ = drops;
  return record;
}

std::optional<CaptureRecord> RecordSplitter::Next() {
  const wire::ByteView rest = wire::ByteView(bytes_).From(at_);
  if (rest.size() < kBtsnoopHead) return std::nullopt;
  if (format_ == Format::kUnknown) {
    FindFormat();
    if (format_ != Format::kPcapng) return Take(kBtsnoopHead);
  }
  const bool pcapng = format_ == Format::kPcapng;
  if (!pcapng && rest.size() < kBtsnoopRecord) return std::nullopt;
  const size_t size = pcapng ? rest.U32(4) : kBtsnoopRecord + Big32(rest, 4);
  if (size < 12 || size > kLongestRecord) throw Failure("the capture is damaged");
  if (rest.size() < size) return std::nullopt;
  return pcapng ? Pcapng(size) : Btsnoop(size);
}

}  // namespace bthalctl
