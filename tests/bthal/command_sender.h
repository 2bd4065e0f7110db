#pragma once

#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>

#include <memory>

#include "hci_flow_control.h"

namespace test {

// The HAL as the activity watcher knows it: a way to send commands as the stack does. Without a
// flow control they are lost, as while the transport is down.
class CommandSender : public android::hardware::bluetooth::V1_1::IBluetoothHci {
 public:
  using Flow = std::shared_ptr<android::hardware::bluetooth::hci::HciFlowControl>;
  using Result = android::hardware::Return<void>;
  using Callbacks = android::hardware::bluetooth::V1_0::IBluetoothHciCallbacks;
  using Callbacks_1_1 = android::hardware::bluetooth::V1_1::IBluetoothHciCallbacks;
  template <typename T>
  using Vec = android::hardware::hidl_vec<T>;

  void Use(const Flow& flow) { std::atomic_store(&flow_, flow); }

  Result sendHciCommand(const Vec<uint8_t>& packet) override {
    const Flow flow = std::atomic_load(&flow_);
    if (flow != nullptr) flow->Send(kCommand, packet.data(), packet.size());
    return {};
  }
  Result initialize(const android::sp<Callbacks>&) override { return {}; }
  Result initialize_1_1(const android::sp<Callbacks_1_1>&) override { return {}; }
  Result sendAclData(const Vec<uint8_t>&) override { return {}; }
  Result sendScoData(const Vec<uint8_t>&) override { return {}; }
  Result sendIsoData(const Vec<uint8_t>&) override { return {}; }
  Result close() override { return {}; }
  Result debug(const android::hardware::hidl_handle&,
               const Vec<android::hardware::hidl_string>&) override {
    return {};
  }

 private:
  static constexpr auto kCommand = android::hardware::bluetooth::hci::HCI_PACKET_TYPE_COMMAND;

  Flow flow_;  // atomic: set while other threads send
};

}  // namespace test
