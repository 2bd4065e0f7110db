#pragma once

#include <hardware/nuvexa/bluetooth/sar/1.1/IBluetoothSar.h>

#include "extension_refusal.h"

namespace hardware::nuvexa::bluetooth::sar::V1_1::implementation {

// The transmit-power service; refuses every call.
class BluetoothSar : public IBluetoothSar {
 public:
  ::android::hardware::Return<void> setBluetoothTxPowerCap(int8_t /*cap*/) override {
    return Refuse(__func__);
  }
  ::android::hardware::Return<void> setBluetoothTechBasedTxPowerCap(int8_t /*br*/, int8_t /*edr*/,
                                                                    int8_t /*ble*/) override {
    return Refuse(__func__);
  }
  ::android::hardware::Return<void> setBluetoothModeBasedTxPowerCap(
      const ::android::hardware::hidl_array<int8_t, 3>& /*chain0*/,
      const ::android::hardware::hidl_array<int8_t, 3>& /*chain1*/,
      const ::android::hardware::hidl_array<int8_t, 6>& /*beamforming*/) override {
    return Refuse(__func__);
  }

 private:
  static ::android::hardware::Return<void> Refuse(const char* call) {
    ::android::hardware::bluetooth::RefuseExtensionCall("bthal.sar", call);
    return ::android::hardware::Void();
  }
};

}  // namespace hardware::nuvexa::bluetooth::sar::V1_1::implementation
