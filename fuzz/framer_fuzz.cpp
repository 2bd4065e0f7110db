// The stream from the controller, cut into reads at places that the input chooses, too.
#include <android/log.h>

#include <cstdlib>

#include "h4/h4_protocol.h"

using android::hardware::hidl_vec;
using android::hardware::bluetooth::hci::H4Protocol;
namespace hci = android::hardware::bluetooth::hci;

namespace {

// Every packet that comes out is as long as its header says.
hci::PacketReceiver Checked(hci::HciPacketType type) {
  return [type](const hidl_vec<uint8_t>& packet) {
    size_t length = 0;
    switch (type) {
      case hci::HCI_PACKET_TYPE_EVENT:
        length = 2u + packet[1];
        break;
      case hci::HCI_PACKET_TYPE_SCO_DATA:
        length = 3u + packet[2];
        break;
      case hci::HCI_PACKET_TYPE_ACL_DATA:
        length = 4u + packet[2] + 256u * packet[3];
        break;
      default:
        length = 4u + packet[2] + 256u * (packet[3] & 0x3Fu);
    }
    if (packet.size() != length) abort();
    unsigned sum = 0;
    for (uint8_t byte : packet) sum += byte;  // every byte is readable
    static_cast<void>(sum);
  };
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
  if (size == 0) return 0;
  H4Protocol h4(-1, Checked(hci::HCI_PACKET_TYPE_EVENT), Checked(hci::HCI_PACKET_TYPE_ACL_DATA),
                Checked(hci::HCI_PACKET_TYPE_SCO_DATA), Checked(hci::HCI_PACKET_TYPE_ISO_DATA));
  const size_t chunk = data[size - 1] + 1u;
  for (size_t at = 0; at < size; at += chunk) h4.OnBytes(data + at, std::min(chunk, size - at));
  return 0;
}
