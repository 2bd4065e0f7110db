#pragma once

#include <hardware/nuvexa/bluetooth/ext/1.0/IBluetoothExt.h>

#include "extension/extension.h"

namespace hardware::nuvexa::bluetooth::ext::V1_0::implementation {

// The service that sends any command to the controller, beside the stack and in turn with its
// commands, and waits for the answer. While a call waits, every Command Complete of its opcode is
// its answer and kept from the stack, another caller's or the stack's as well.
class BluetoothExt final : public IBluetoothExt {
 public:
  // params: its length modulo 256 counts. Returns whether the controller completed the command
  // with status 0 within 2 s; false at once while Bluetooth is off or as it goes off.
  Return<bool> setBluetoothCmdPacket(uint16_t opcode, const hidl_vec<uint8_t>& params) override;

  static void OnBluetoothEnabled(hci::HciFlowControl* flow);
  static void OnBluetoothDisabled();
};

}  // namespace hardware::nuvexa::bluetooth::ext::V1_0::implementation
