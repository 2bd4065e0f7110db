#include "sim/handset/line_faults.h"

namespace zvk {

bool LineFaults::Send(PacketType type, ByteView packet) {
  if (silent_) return false;
  const auto type_byte = static_cast<uint8_t>(type);
  if (merge_ > 1) {
    held_.push_back(type_byte);
    held_.insert(held_.end(), packet.begin(), packet.end());
    if (++held_packets_ >= merge_) {
      Release();
    } else if (release_ == EventLoop::kNoTimer) {
      release_ = loop_.After(patience_, [this] { Release(); });
    }
    return true;
  }
  uart_.Send({&type_byte, 1});
  if (split_after_ == 0 || split_after_ > packet.size()) {
    uart_.Send(packet);
    return true;
  }
  uart_.Send(packet.Sub(0, split_after_ - 1));
  uart_.Pause(split_pause_);
  uart_.Send(packet.From(split_after_ - 1));
  return true;
}

void LineFaults::Release() {
  loop_.Cancel(&release_);
  uart_.Send(held_);
  held_.clear();
  held_packets_ = 0;
}

void LineFaults::BeSilent(EventLoop::Duration time) {
  silent_ = true;
  loop_.Cancel(&silence_end_);
  if (time > EventLoop::Duration::zero()) {
    silence_end_ = loop_.After(time, [this] { silent_ = false; });
  }
}

void LineFaults::SplitAfter(size_t bytes, EventLoop::Duration pause) {
  split_after_ = bytes;
  split_pause_ = pause;
}

void LineFaults::Merge(size_t packets, EventLoop::Duration patience) {
  Release();
  merge_ = packets;
  patience_ = patience;
}

void LineFaults::Clear() {
  silent_ = false;
  loop_.Cancel(&silence_end_);
  loop_.Cancel(&release_);
  held_.clear();
  held_packets_ = 0;
}

}  // namespace zvk
