// Cuts a capture that the service writes into its records.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/wire/bytes.h"

namespace bthalctl {

using wire::Bytes;

// What a record of a capture is. A file begins with the heads.
enum class RecordKind { kHead, kPacket, kNote };

struct CaptureRecord {
  RecordKind kind = RecordKind::kHead;
  Bytes bytes;        // whole
  uint64_t lost = 0;  // packets that are missing right before it
};

// Takes a stream of bytes, cut at any place, and gives whole records: of pcapng, or of btsnoop with
// its two data links. Throws Failure at something that is neither.
class RecordSplitter {
 public:
  // Whether a capture begins with these bytes.
  static bool IsCapture(wire::ByteView bytes);

  void Put(wire::ByteView bytes);
  std::optional<CaptureRecord> Next();
  // Whether nothing is left after the last whole record.
  bool empty() const { return at_ == bytes_.size(); }

 private:
  enum class Format { kUnknown, kPcapng, kBtsnoop, kMonitor };

  void FindFormat();
  CaptureRecord Take(size_t size);
  CaptureRecord Pcapng(size_t size);
  CaptureRecord Btsnoop(size_t size);

  Format format_ = Format::kUnknown;
  Bytes bytes_;
  size_t at_ = 0;       // of the next record in bytes_
  uint32_t drops_ = 0;  // btsnoop: lost so far
};

}  // namespace bthalctl
