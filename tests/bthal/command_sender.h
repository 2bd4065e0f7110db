#pragma once

#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>

#include <memory>
#include <mutex>

#include "hci_flow_control.h"

namespace test {

// The HAL as the activity watcher knows it: a way to send commands as the stack does. Without a
// flow control they are lost, as while the transport is down.
class CommandSender : public android::hardware::bluetooth::V1_1::IBluetoothHci {
 public:
  using Flow = std::shared_ptr<android::hardware::bluetooth::hci::HciFlowControl>;
  using Result = android::hardware::Return<void>;
  template <typename T>
  using Vec = android::hardware::hidl_vec<T>;

  void Use(Flow flow) {
    const std::lock_guard<std::mutex> guard(lock_);
    flow_ = std::move(flow);
  }

  Result sendHciCommand(const Vec<uint8_t>& packet) override {
    Flow flow;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      flow = flow_;
    }
    if (flow != nullptr) {
      flow->Send(android::hardware::bluetooth::hci::HCI_PACKET_TYPE_COMMAND, packet.data(),
                 packet.size());
    }
    return {};
  }
  Result initialize(
      const android::sp<android::hardware::bluetooth::V1_0::IBluetoothHciCallbacks>&) override {
    return {};
  }
  Result initialize_1_1(
      const android::sp<android::hardware::bluetooth::V1_1::IBluetoothHciCallbacks>&) override {
    return {};
  }
  Result sendAclData(const Vec<uint8_t>&) override { return {}; }
  Result sendScoData(const Vec<uint8_t>&) override { return {}; }
  Result sendIsoData(const Vec<uint8_t>&) override { return {}; }
  Result close() override { return {}; }
  Result debug(const android::hardware::hidl_handle&,
               const Vec<android::hardware::hidl_string>&) override {
    return {};
  }

 private:
  std::mutex lock_;
  Flow flow_;
};

}  // namespace test
