#include "tools/capture/record_splitter.h"

#include "tools/base/failure.h"
#include "tools/capture/record_format.h"

namespace bthalctl {
namespace {

constexpr size_t kLongestRecord = 1 << 20;

bool IsBtsnoop(wire::ByteView bytes) {
  return bytes.size() > 7 && bytes.Sub(0, 7).Text() == "btsnoop" && bytes[7] == 0;
}

// Packets lost before a packet block; 0 without that option.
uint64_t DropCount(wire::ByteView block) {
  uint64_t lost = 0;
  record_format::ForEachOption(block, record_format::PacketOptions(block),
                               [&](uint16_t code, wire::ByteView value) {
                                 if (code == record_format::kDropCount) lost = value.Little(0, 8);
                               });
  return lost;
}

}  // namespace

bool RecordSplitter::IsCapture(wire::ByteView bytes) {
  return bytes.U32(0) == record_format::kSectionHeader || IsBtsnoop(bytes);
}

void RecordSplitter::Put(wire::ByteView bytes) {
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(at_));
  at_ = 0;
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

void RecordSplitter::FindFormat() {
  const wire::ByteView rest = wire::ByteView(bytes_).From(at_);
  if (rest.U32(0) == record_format::kSectionHeader) {
    format_ = Format::kPcapng;
  } else if (IsBtsnoop(rest)) {
    format_ = record_format::Big(rest, 12, 4) == 2001 ? Format::kMonitor : Format::kBtsnoop;
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
  if (wire::ByteView(record.bytes).U32(0) == record_format::kEnhancedPacket) {
    record.kind = RecordKind::kPacket;
    record.lost = DropCount(record.bytes);
  }
  return record;
}

CaptureRecord RecordSplitter::Btsnoop(size_t size) {
  CaptureRecord record = Take(size);
  record.kind = RecordKind::kPacket;
  if (format_ == Format::kMonitor) {
    const uint64_t opcode = record_format::Big(record.bytes, 10, 2);
    if (opcode == record_format::kMonitorNewIndex || opcode == record_format::kMonitorOpenIndex)
      record.kind = RecordKind::kHead;
    if (opcode == record_format::kMonitorNote) record.kind = RecordKind::kNote;
  }
  const auto drops = static_cast<uint32_t>(record_format::Big(record.bytes, 12, 4));
  record.lost = drops - drops_;
  drops_ = drops;
  return record;
}

std::optional<CaptureRecord> RecordSplitter::Next() {
  const wire::ByteView rest = wire::ByteView(bytes_).From(at_);
  if (rest.size() < record_format::kBtsnoopHead) return std::nullopt;
  if (format_ == Format::kUnknown) {
    FindFormat();
    if (format_ != Format::kPcapng) return Take(record_format::kBtsnoopHead);
  }
  const bool pcapng = format_ == Format::kPcapng;
  if (!pcapng && rest.size() < record_format::kBtsnoopRecord) return std::nullopt;
  const uint64_t size =
      pcapng ? rest.U32(4) : record_format::kBtsnoopRecord + record_format::Big(rest, 4, 4);
  if (size < 12 || size > kLongestRecord) throw Failure("the capture is damaged");
  if (rest.size() < size) return std::nullopt;
  const auto bytes = static_cast<size_t>(size);
  return pcapng ? Pcapng(bytes) : Btsnoop(bytes);
}

}  // namespace bthalctl
