// What the tap keeps: entries, one behind the other in plain memory.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace android::hardware::bluetooth::tap {

// What stands before the bytes of each entry.
struct EntryHeader {
  uint64_t packets_before = 0;  // that the tap has seen; a gap tells how many a reader has lost
  int64_t monotonic_ns = 0;     // CLOCK_MONOTONIC
  int64_t wall_ns = 0;          // CLOCK_REALTIME
  uint32_t size = 0;            // of the bytes that follow
  uint8_t type = 0;             // the packet's H4 type byte; kNote for a note
  bool from_controller = false;
  char level = 'I';  // of a note: I, W, E, F
};
constexpr uint8_t kNote = 0;

// Entries copied out of a ring, whole ones, one behind the other.
using Entries = std::vector<uint8_t>;

void AppendEntry(const EntryHeader& header, const uint8_t* bytes, Entries* entries);
// Reads the entry at *at and moves *at behind it. Returns its bytes.
const uint8_t* NextEntry(const Entries& entries, size_t* at, EntryHeader* header);

// A bounded ring of entries, in which the newest take the place of the oldest. Positions count
// bytes since the start and never repeat. Adding an entry copies its bytes and allocates nothing.
// Not locked.
class EntryRing {
 public:
  explicit EntryRing(size_t capacity)
      : capacity_(capacity), memory_(std::make_unique<uint8_t[]>(capacity)) {}

  // header.size bytes; an entry longer than the ring is left out.
  void Add(const EntryHeader& header, const uint8_t* bytes);

  uint64_t end() const { return end_; }
  // Copies entries from *position on, up to about limit bytes and at least one if there is one, and
  // moves *position behind them. A position that is overwritten by now means the oldest entry.
  void Copy(uint64_t* position, size_t limit, Entries* entries) const;
  // What the header at position says; at_end when that is the end.
  uint64_t PacketsBefore(uint64_t position, uint64_t at_end) const {
    return position < end_ ? HeaderAt(position).packets_before : at_end;
  }

 private:
  EntryHeader HeaderAt(uint64_t position) const;
  void Read(uint64_t position, void* to, size_t size) const;
  void Write(uint64_t position, const void* from, size_t size);

  const size_t capacity_;
  const std::unique_ptr<uint8_t[]> memory_;
  uint64_t begin_ = 0;  // of the oldest entry
  uint64_t end_ = 0;
};

}  // namespace android::hardware::bluetooth::tap
