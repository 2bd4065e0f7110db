#include "h4/hci_packetizer.h"

#include <algorithm>
#include <cstring>

namespace android::hardware::bluetooth::hci {

HciPacketizer::HciPacketizer(std::function<void()> packet_ready)
    : packet_ready_(std::move(packet_ready)), buffer_(new uint8_t[kMaxPacketSize]) {}

size_t HciPacketizer::OnDataReady(HciPacketType type, const uint8_t* data, size_t length) {
  if (state_ == HCI_PREAMBLE) {
    const HeaderFormat& format = kHeaders[type];
    if (bytes_read_ == 0 && length > format.size) {
      const size_t size = format.size + PayloadLength(format, data);
      if (size > format.size && size <= length) {
        packet_.setToExternal(const_cast<uint8_t*>(data), size);  // read only; no copy
        packet_ready_();
        return size;
      }
    }
    const size_t taken = std::min(format.size - bytes_read_, length);
    memcpy(buffer_.get() + bytes_read_, data, taken);
    bytes_read_ += taken;
    if (bytes_read_ == format.size) {
      bytes_remaining_ = PayloadLength(format, buffer_.get());
      packet_.setToExternal(buffer_.get(), format.size + bytes_remaining_);
      state_ = HCI_PAYLOAD;
      bytes_read_ = 0;
    }
    return taken;
  }
  const size_t taken = std::min(bytes_remaining_, length);
  memcpy(buffer_.get() + (packet_.size() - bytes_remaining_), data, taken);
  bytes_remaining_ -= taken;
  if (bytes_remaining_ == 0) {
    packet_ready_();
    state_ = HCI_PREAMBLE;
  }
  return taken;
}

}  // namespace android::hardware::bluetooth::hci
