#include "sim/radio/l2cap.h"

#include "sim/base/log.h"

namespace zvk {
namespace {

constexpr size_t kL2capHeaderBytes = 4;  // length, channel

}  // namespace

void L2cap::OnFragment(bool first, ByteView fragment) {
  if (first != frame_.empty()) {
    Log("L2CAP: %s", first ? "a frame begins inside another" : "a fragment without a beginning");
    frame_.clear();
    if (!first) return;
  }
  if (fragment.empty()) return;
  frame_.insert(frame_.end(), fragment.begin(), fragment.end());
  if (frame_.size() < kL2capHeaderBytes) return;
  const size_t whole = kL2capHeaderBytes + ByteView(frame_).U16(0);
  if (frame_.size() < whole) return;
  const Bytes frame = std::move(frame_);
  frame_.clear();
  if (frame.size() > whole) {
    Log("L2CAP: a frame of %zu bytes came as %zu", whole, frame.size());
    return;
  }
  on_frame_(ByteView(frame).U16(2), ByteView(frame).From(kL2capHeaderBytes));
}

void L2cap::Send(uint16_t channel, ByteView payload, size_t fragment_bytes) {
  const Writer frame =
      Writer().U16(static_cast<unsigned>(payload.size())).U16(channel).Append(payload);
  const ByteView all(frame);
  for (size_t at = 0; at < all.size(); at += fragment_bytes) {
    send_(at == 0, all.Sub(at, fragment_bytes));
  }
}

}  // namespace zvk
