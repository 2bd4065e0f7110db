#pragma once

#include <hardware/nuvexa/bluetooth/ext/1.0/IBluetoothExt.h>

#include "extension_refusal.h"

namespace hardware::nuvexa::bluetooth::ext::V1_0::implementation {

// The command-injection service; refuses every call.
class BluetoothExt : public IBluetoothExt {
 public:
  ::android::hardware::Return<bool> setBluetoothCmdPacket(
      uint16_t /*opcode*/, const ::android::hardware::hidl_vec<uint8_t>& /*params*/) override {
    ::android::hardware::bluetooth::RefuseExtensionCall("bthal.btext", __func__);
    return false;
  }
};

}  // namespace hardware::nuvexa::bluetooth::ext::V1_0::implementation
