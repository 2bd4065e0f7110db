#include "tap/entry_ring.h"

#include <algorithm>
#include <cstring>

namespace android::hardware::bluetooth::tap {

void AppendEntry(const EntryHeader& header, const uint8_t* bytes, Entries* entries) {
  const size_t at = entries->size();
  entries->resize(at + sizeof header + header.size);
  memcpy(entries->data() + at, &header, sizeof header);
  if (header.size > 0) memcpy(entries->data() + at + sizeof header, bytes, header.size);
}

const uint8_t* NextEntry(const Entries& entries, size_t* at, EntryHeader* header) {
  memcpy(header, entries.data() + *at, sizeof *header);
  const uint8_t* const bytes = entries.data() + *at + sizeof *header;
  *at += sizeof *header + header->size;
  return bytes;
}

void EntryRing::Read(uint64_t position, void* to, size_t size) const {
  const auto at = static_cast<size_t>(position % capacity_);
  const size_t first = std::min(size, capacity_ - at);
  memcpy(to, memory_.get() + at, first);
  memcpy(static_cast<uint8_t*>(to) + first, memory_.get(), size - first);
}

void EntryRing::Write(uint64_t position, const void* from, size_t size) {
  const auto at = static_cast<size_t>(position % capacity_);
  const size_t first = std::min(size, capacity_ - at);
  memcpy(memory_.get() + at, from, first);
  memcpy(memory_.get(), static_cast<const uint8_t*>(from) + first, size - first);
}

EntryHeader EntryRing::HeaderAt(uint64_t position) const {
  EntryHeader header;
  Read(position, &header, sizeof header);
  return header;
}

void EntryRing::Add(const EntryHeader& header, const uint8_t* bytes) {
  const size_t size = sizeof header + header.size;
  if (size > capacity_) return;
  while (end_ + size - begin_ > capacity_) begin_ += sizeof header + HeaderAt(begin_).size;
  Write(end_, &header, sizeof header);
  if (header.size > 0) Write(end_ + sizeof header, bytes, header.size);
  end_ += size;
}

void EntryRing::Copy(uint64_t* position, size_t limit, Entries* entries) const {
  *position = std::max(*position, begin_);
  const uint64_t from = *position;
  while (*position < end_ && *position - from < limit) {
    *position += sizeof(EntryHeader) + HeaderAt(*position).size;
  }
  const auto size = static_cast<size_t>(*position - from);
  const size_t at = entries->size();
  entries->resize(at + size);
  if (size > 0) Read(from, entries->data() + at, size);
}

}  // namespace android::hardware::bluetooth::tap
