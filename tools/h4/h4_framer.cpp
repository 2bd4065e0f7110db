#include "tools/h4/h4_framer.h"

#include <algorithm>

namespace bthalctl {

bool H4Framer::Push(const uint8_t* data, size_t size,
                    const std::function<void(Packet)>& on_packet) {
  while (size > 0) {
    if (partial_.empty()) {
      bad_type_ = data[0];
      if (!HeaderSize(data[0]) || data[0] == static_cast<uint8_t>(PacketType::kEvent)) return false;
    }
    const size_t header = 1 + (partial_.empty() ? *HeaderSize(data[0]) : *HeaderSize(partial_[0]));
    size_t wanted = header;
    if (partial_.size() >= header) {
      wanted = 1 + PacketSize(static_cast<PacketType>(partial_[0]), partial_.data() + 1);
    }
    const size_t taken = std::min(size, wanted - partial_.size());
    partial_.insert(partial_.end(), data, data + taken);
    data += taken;
    size -= taken;
    if (partial_.size() < header) continue;
    const auto type = static_cast<PacketType>(partial_[0]);
    if (partial_.size() < 1 + PacketSize(type, partial_.data() + 1)) continue;
    Packet packet{type, Bytes(partial_.begin() + 1, partial_.end())};
    partial_.clear();
    on_packet(std::move(packet));
  }
  return true;
}

}  // namespace bthalctl
