// Cuts a capture into its records.
#pragma once

#include <cstdint>
#include <optional>

#include "tools/wire/bytes.h"

namespace wire {

// What a record of a capture is. A file begins with the heads.
enum class RecordKind { kHead, kPacket, kNote };

struct CaptureRecord {
  RecordKind kind = RecordKind::kHead;
  Bytes bytes;              // whole
  uint64_t lost = 0;        // packets that are missing right before it
  uint64_t at = 0;          // where it begins
  bool big_endian = false;  // its numbers
};

// Takes a stream of bytes, cut at any place, and gives whole records: of pcapng in either byte
// order, or of btsnoop with its two data links. A record is at most 1 MiB. Throws
// std::runtime_error, with one line, at something that is neither.
class RecordSplitter {
 public:
  // Whether a capture begins with these bytes.
  static bool IsCapture(ByteView bytes);

  void Put(ByteView bytes);
  std::optional<CaptureRecord> Next();
  // Nothing more comes. Throws when a record is not whole, or when there was no capture at all.
  void End() const;

 private:
  enum class Format { kUnknown, kPcapng, kBtsnoop, kMonitor };

  ByteView Rest() const { return ByteView(bytes_).From(at_); }
  void FindFormat();
  CaptureRecord Take(size_t size);
  std::optional<CaptureRecord> Pcapng();
  std::optional<CaptureRecord> Btsnoop();

  Format format_ = Format::kUnknown;
  bool big_endian_ = false;  // the section of pcapng
  Bytes bytes_;
  size_t at_ = 0;        // of the next record in bytes_
  uint64_t before_ = 0;  // bytes of the capture before bytes_
  uint32_t drops_ = 0;   // btsnoop: lost so far
};

}  // namespace wire
