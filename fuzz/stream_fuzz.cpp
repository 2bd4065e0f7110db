// The stream from the controller, cut into reads at places that the input chooses, too. Its events
// go to the flow control, while commands wait.
#include <android/log.h>

#include <algorithm>
#include <cstdlib>

#include "h4/h4_protocol.h"
#include "hci_flow_control.h"

using android::hardware::hidl_vec;
using namespace android::hardware::bluetooth::hci;

namespace {

class Watcher final : public HciEventWatcher {
 public:
  Watcher(uint8_t code, uint16_t opcode) : HciEventWatcher("fuzz", code, opcode) {}
  bool OnEventReceive(const hidl_vec<uint8_t>& event) override { return event.size() % 2 == 0; }
};

// The shortest events that hold an opcode: a shorter one ends the process by design.
size_t MinimumSize(uint8_t code) {
  return code == 0x0E ? 5 : code == 0x0F ? 6 : code == 0x19 ? 4 : 2;
}

// Every packet that comes out is as long as its header says. mask: of the length's second byte.
PacketReceiver Checked(size_t length_at, unsigned mask, PacketReceiver next) {
  return [=](const hidl_vec<uint8_t>& packet) {
    const size_t header = length_at + (mask == 0 ? 1 : 2);
    const unsigned high = mask == 0 ? 0 : packet[length_at + 1] & mask;
    if (packet.size() != header + packet[length_at] + 256u * high) abort();
    next(packet);
  };
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
  if (size == 0) return 0;
  const auto nothing = [](const hidl_vec<uint8_t>&) {};
  const auto flow = HciFlowControl::Create(
      {nothing, nothing, nothing, nothing},
      {[](uint8_t, const uint8_t*, size_t length, bool) { return length; }, [] {}});
  flow->Connect([](const auto&) {});
  Watcher any(0x0E, 0), one(0x0E, 0x0C03), vendor(0xFF, 0);
  for (HciEventWatcher* watcher : {&any, &one, &vendor}) flow->RegisterEventWatcher(watcher);
  const auto handle = [&](const hidl_vec<uint8_t>& event) {
    const uint8_t command[] = {0x03, 0x0C, 0x00};
    flow->Send(HCI_PACKET_TYPE_COMMAND, command, event.size() % 4);
    if (event.size() >= MinimumSize(event[0])) flow->OnHciEventReady(event, nothing);
  };
  H4Protocol h4(-1, Checked(1, 0, handle), Checked(2, 0xFF, nothing), Checked(2, 0, nothing),
                Checked(2, 0x3F, nothing));
  const size_t chunk = data[size - 1] + 1u;
  for (size_t at = 0; at < size; at += chunk) h4.OnBytes(data + at, std::min(chunk, size - at));
  flow->Halt();
  return 0;
}
