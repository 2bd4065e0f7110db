#include "bthal/uart_rig.h"

#include <stdexcept>

#include "bthal/child_case.h"
#include "btzvk_protocol.h"
#include "transport_shim.h"

namespace test {
namespace {

namespace shim = android::hardware::bluetooth::hci::shim;
using android::hardware::hidl_vec;
using android::hardware::bluetooth::BtZvkProtocol;

// An event that the stack gets and nobody else cares for.
const Bytes kMarkerEvent = {0x3E, 0x02, 0x7F, 0x7F};

}  // namespace

UartRig::UartRig() : pty_(RootFolder() + kUartPort) {
  shim::SetOwner({[] { BtZvkProtocol::GetInstacne()->LpmWakeUp(); },
                  [] { BtZvkProtocol::GetInstacne()->Shutdown(); }});
}

UartRig::~UartRig() { shim::Deinitialize(); }

bool UartRig::Open() {
  const auto receiver = [this](uint8_t type) {
    return [this, type](const hidl_vec<uint8_t>& packet) { Record(type, packet); };
  };
  flow_ = shim::InitializeHciHandle(receiver(4), receiver(2), receiver(3), receiver(5));
  return flow_ != nullptr;
}

void UartRig::Record(uint8_t type, const hidl_vec<uint8_t>& packet) {
  const std::lock_guard<std::mutex> guard(lock_);
  if (ToBytes(packet) == kMarkerEvent) {
    ++markers_;
  } else {
    received_.push_back({type, ToBytes(packet)});
  }
}

void UartRig::DeliverEvent(const Bytes& event) {
  const auto markers = [this] {
    const std::lock_guard<std::mutex> guard(lock_);
    return markers_;
  };
  const int before = markers();
  Bytes stream = {0x04};
  stream.insert(stream.end(), event.begin(), event.end());
  stream.push_back(0x04);
  stream.insert(stream.end(), kMarkerEvent.begin(), kMarkerEvent.end());
  pty_.WriteToHost(stream);
  if (!WaitFor([&] { return markers() > before; })) throw std::runtime_error("event not taken");
}

std::vector<UartRig::Packet> UartRig::TakeReceived() {
  const std::lock_guard<std::mutex> guard(lock_);
  return std::exchange(received_, {});
}

}  // namespace test
