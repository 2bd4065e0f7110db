#include "tools/wire/record_splitter.h"

#include <stdexcept>
#include <string>

#include "tools/wire/record_format.h"

namespace wire {
namespace {

using record_format::AtByte;
using record_format::Numbers;

constexpr size_t kLongestRecord = 1 << 20;
constexpr size_t kBlockHead = 8;       // type and length
constexpr size_t kSmallestBlock = 12;  // with the length again at its end

bool IsBtsnoop(ByteView bytes) {
  return bytes.size() > 7 && bytes.Sub(0, 7).Text() == "btsnoop" && bytes[7] == 0;
}

// Packets lost before a packet block; 0 without that option.
uint64_t DropCount(const Numbers& block) {
  uint64_t lost = 0;
  ForEachOption(block, PacketOptions(block), [&](uint16_t code, const Numbers& value) {
    if (code == record_format::kDropCount) lost = value.Number(0, 8);
  });
  return lost;
}

}  // namespace

bool RecordSplitter::IsCapture(ByteView bytes) {
  return bytes.U32(0) == record_format::kSectionHeader || IsBtsnoop(bytes);
}

void RecordSplitter::Put(ByteView bytes) {
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(at_));
  before_ += at_;
  at_ = 0;
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

void RecordSplitter::FindFormat() {
  const Numbers head{Rest()};
  if (head.bytes.U32(0) == record_format::kSectionHeader) {
    format_ = Format::kPcapng;
  } else if (!IsBtsnoop(head.bytes)) {
    throw std::runtime_error("neither pcapng nor btsnoop");
  } else if (head.U32(8) != 1) {
    throw std::runtime_error("btsnoop of another version than 1");
  } else if (const uint32_t link = head.U32(12);
             link == record_format::kH4Link || link == record_format::kMonitorLink) {
    format_ = link == record_format::kMonitorLink ? Format::kMonitor : Format::kBtsnoop;
  } else {
    throw std::runtime_error("data link " + std::to_string(link) + "; only 1002 and 2001 are read");
  }
}

CaptureRecord RecordSplitter::Take(size_t size) {
  CaptureRecord record;
  record.bytes = Rest().Sub(0, size).Copy();
  record.at = before_ + at_;
  record.big_endian = format_ != Format::kPcapng || big_endian_;
  at_ += size;
  return record;
}

std::optional<CaptureRecord> RecordSplitter::Pcapng() {
  const ByteView rest = Rest();
  if (rest.size() < kSmallestBlock) return std::nullopt;
  if (rest.U32(0) == record_format::kSectionHeader) {
    big_endian_ = Numbers{rest, true}.U32(kBlockHead) == record_format::kByteOrder;
    if (!big_endian_ && rest.U32(kBlockHead) != record_format::kByteOrder) {
      throw std::runtime_error("no byte order" + AtByte(before_ + at_));
    }
  }
  const Numbers block{rest, big_endian_};
  const size_t size = block.U32(4);
  const auto wrong = [&] {
    return std::runtime_error("a block with a wrong length" + AtByte(before_ + at_));
  };
  if (size < kSmallestBlock || size % 4 != 0 || size > kLongestRecord) throw wrong();
  if (rest.size() < size) return std::nullopt;
  if (block.U32(size - 4) != size) throw wrong();
  CaptureRecord record = Take(size);
  if (block.U32(0) == record_format::kEnhancedPacket) {
    record.kind = RecordKind::kPacket;
    record.lost = DropCount({record.bytes, big_endian_});
  }
  return record;
}

std::optional<CaptureRecord> RecordSplitter::Btsnoop() {
  const Numbers rest{Rest()};
  if (rest.bytes.size() < record_format::kBtsnoopRecord) return std::nullopt;
  const size_t size = record_format::kBtsnoopRecord + rest.U32(4);
  if (size > kLongestRecord) {
    throw std::runtime_error("a record with a wrong length" + AtByte(before_ + at_));
  }
  if (rest.bytes.size() < size) return std::nullopt;
  const uint16_t opcode = rest.U16(10);
  const uint32_t drops = rest.U32(12);
  CaptureRecord record = Take(size);
  record.kind = RecordKind::kPacket;
  if (format_ == Format::kMonitor) {
    if (opcode == record_format::kMonitorNewIndex || opcode == record_format::kMonitorOpenIndex)
      record.kind = RecordKind::kHead;
    if (opcode == record_format::kMonitorNote) record.kind = RecordKind::kNote;
  }
  // They are counted from the beginning on.
  record.lost = drops > drops_ ? drops - drops_ : 0;
  drops_ = drops;
  return record;
}

std::optional<CaptureRecord> RecordSplitter::Next() {
  if (format_ == Format::kUnknown) {
    if (Rest().size() < record_format::kBtsnoopHead) return std::nullopt;
    FindFormat();
    if (format_ != Format::kPcapng) return Take(record_format::kBtsnoopHead);
  }
  return format_ == Format::kPcapng ? Pcapng() : Btsnoop();
}

void RecordSplitter::End() const {
  const ByteView rest = Rest();
  if (format_ == Format::kUnknown && !IsCapture(rest)) {
    throw std::runtime_error("neither pcapng nor btsnoop");
  }
  if (rest.empty()) return;
  const bool btsnoop =
      IsBtsnoop(rest) || format_ == Format::kBtsnoop || format_ == Format::kMonitor;
  throw std::runtime_error(!btsnoop ? "it ends inside a block" + AtByte(before_ + at_)
                           : format_ == Format::kUnknown
                               ? "it ends inside its head"
                               : "it ends inside a record" + AtByte(before_ + at_));
}

}  // namespace wire
