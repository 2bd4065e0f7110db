#pragma once

#include <hardware/nuvexa/bluetooth/ewp/1.0/IBluetoothEwp.h>

#include "extension/extension_command.h"

namespace hardware::nuvexa::bluetooth::ewp::V1_0::implementation {

// The service that switches the controller's EWP logging, whose records come as data packets on
// reserved connection handles. Forgets the switch at once: after off and on the logging is off.
class BluetoothEwp final : public IBluetoothEwp,
                           public ::android::hardware::bluetooth::ExtensionCommand {
 public:
  BluetoothEwp();

  // interval: of the records, in the controller's unit.
  ::android::hardware::Return<void> EnableEwp(uint16_t interval) override;
  ::android::hardware::Return<void> DisableEwp() override;

  bool OnEventReceive(const ::android::hardware::hidl_vec<uint8_t>& event) override;

  static void OnBluetoothEnabled(::android::hardware::bluetooth::hci::HciFlowControl* flow);
  static void OnBluetoothDisabled();

  // Logs a packet from the controller if it is an EWP record, in lines of 32 bytes. kind: 1 ACL, 2
  // ISO data. Returns whether it was one.
  static bool PrintEwpLogging(int kind, const ::android::hardware::hidl_vec<uint8_t>& packet);

 private:
  // The one that watches and counts, whichever instance is called.
  static BluetoothEwp& Shared();
  static void Switch(::android::hardware::bluetooth::hci::HciFlowControl& flow,
                     const char* operation, bool on, uint16_t interval);
};

}  // namespace hardware::nuvexa::bluetooth::ewp::V1_0::implementation
