#pragma once

#include <hardware/nuvexa/bluetooth/ewp/1.0/IBluetoothEwp.h>

#include "extension_refusal.h"

namespace hardware::nuvexa::bluetooth::ewp::V1_0::implementation {

// The EWP logging service; refuses every call.
class BluetoothEwp : public IBluetoothEwp {
 public:
  ::android::hardware::Return<void> EnableEwp(uint16_t /*interval*/) override {
    return Refuse(__func__);
  }
  ::android::hardware::Return<void> DisableEwp() override { return Refuse(__func__); }

 private:
  static ::android::hardware::Return<void> Refuse(const char* call) {
    ::android::hardware::bluetooth::RefuseExtensionCall("bthal.ewp", call);
    return ::android::hardware::Void();
  }
};

}  // namespace hardware::nuvexa::bluetooth::ewp::V1_0::implementation
