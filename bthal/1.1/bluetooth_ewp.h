#pragma once

#include <hardware/nuvexa/bluetooth/ewp/1.0/IBluetoothEwp.h>

#include "extension/extension.h"

namespace hardware::nuvexa::bluetooth::ewp::V1_0::implementation {

// The service that switches the controller's EWP logging, whose records come as data packets on
// reserved connection handles. The switch is not kept: after off and on the logging is off.
class BluetoothEwp final : public IBluetoothEwp, public Extension<BluetoothEwp> {
 public:
  BluetoothEwp();

  // interval: of the records, in the controller's unit.
  Return<void> EnableEwp(uint16_t interval) override;
  Return<void> DisableEwp() override;

  bool OnEventReceive(const hidl_vec<uint8_t>& event) override;

  void Start(hci::HciFlowControl* flow) override { Enable(flow); }
  void Stop() override { Disable(); }

  // The kinds of packets that may be EWP records.
  static constexpr int kAclData = 1;
  static constexpr int kIsoData = 2;

  // Logs a packet from the controller if it is an EWP record, in lines of 32 bytes. Returns whether
  // it was one.
  static bool PrintEwpLogging(int kind, const hidl_vec<uint8_t>& packet);

 private:
  static void Switch(hci::HciFlowControl& flow, const char* operation, bool on, uint16_t interval);
};

}  // namespace hardware::nuvexa::bluetooth::ewp::V1_0::implementation
