#include "tools/wire/h4_framer.h"

namespace wire {
namespace {

constexpr uint8_t kResetCommand[] = {0x01, 0x03, 0x0C, 0x00};

// Size with the type byte, or 0 while the header is incomplete.
size_t WholeSize(ByteView packet) {
  const size_t size = PacketSize(*LayoutOf(packet[0]), packet.From(1));
  return size == 0 ? 0 : 1 + size;
}

}  // namespace

bool H4Framer::Accepts(uint8_t type) const {
  const auto foreign = from_ == From::kHost ? PacketType::kEvent : PacketType::kCommand;
  return LayoutOf(type) != nullptr && type != static_cast<uint8_t>(foreign);
}

void H4Framer::Reset() {
  lost_ = false;
  reset_matched_ = 0;
  partial_.clear();
  ++resets_;
}

// Returns what follows in rest once the sequence is complete, and delivers it as a packet.
ByteView H4Framer::FindReset(ByteView rest) {
  for (size_t i = 0; i < rest.size(); ++i) {
    if (rest[i] != kResetCommand[reset_matched_]) reset_matched_ = 0;
    if (rest[i] == kResetCommand[reset_matched_]) ++reset_matched_;
    if (reset_matched_ == sizeof(kResetCommand)) {
      lost_ = false;
      reset_matched_ = 0;
      on_packet_(PacketType::kCommand, {kResetCommand + 1, sizeof(kResetCommand) - 1});
      return rest.From(i + 1);
    }
  }
  return {};
}

// Adds to the partial packet until it is whole; returns how many bytes it took.
size_t H4Framer::Gather(ByteView rest) {
  const size_t header = 1 + LayoutOf(partial_[0])->header;
  const size_t whole = WholeSize(partial_);
  const ByteView part = rest.Sub(0, (whole != 0 ? whole : header) - partial_.size());
  partial_.insert(partial_.end(), part.begin(), part.end());
  return part.size();
}

void H4Framer::Push(ByteView chunk) {
  const unsigned resets = resets_;
  while (!chunk.empty() && resets == resets_) {
    if (lost_) {
      chunk = FindReset(chunk);
      continue;
    }
    if (partial_.empty() && !Accepts(chunk[0])) {
      lost_ = true;
      on_lost_(chunk[0]);
      continue;
    }
    const ByteView all = partial_.empty() ? chunk : ByteView(partial_);
    const size_t whole = WholeSize(all);
    if (partial_.empty() && whole != 0 && whole <= chunk.size()) {  // no copy
      const ByteView packet = chunk.Sub(1, whole - 1);
      const auto type = static_cast<PacketType>(chunk[0]);
      chunk = chunk.From(whole);
      on_packet_(type, packet);
      continue;
    }
    if (partial_.empty()) {
      partial_.push_back(chunk[0]);
      chunk = chunk.From(1);
    }
    // Twice: the header tells how much payload follows.
    chunk = chunk.From(Gather(chunk));
    chunk = chunk.From(Gather(chunk));
    if (WholeSize(partial_) != partial_.size()) continue;
    const Bytes packet = std::move(partial_);
    partial_.clear();
    on_packet_(static_cast<PacketType>(packet[0]), ByteView(packet).From(1));
  }
}

}  // namespace wire
