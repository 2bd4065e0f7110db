#pragma once

#include <hardware/nuvexa/bluetooth/sar/1.1/IBluetoothSar.h>

#include <atomic>
#include <vector>

#include "extension/extension.h"

namespace hardware::nuvexa::bluetooth::sar::V1_1::implementation {

// Transmit power caps in quarter steps: BR, EDR, BLE; for beamforming those of chain 0, then of
// chain 1.
using ChainCaps = hidl_array<int8_t, 3>;
using BeamformingCaps = hidl_array<int8_t, 6>;

// The byte that is sent for a cap: clamped to 0 to 80, with a warning when that changes it, and cut
// to whole steps unless in high resolution.
uint8_t scopeCap(int8_t cap, bool high_resolution);
// The whole command.
std::vector<uint8_t> buildCommand(const ChainCaps& chain0, const ChainCaps& chain1,
                                  const BeamformingCaps& beamforming, bool high_resolution);

// The service that caps the controller's transmit power. A cap is not kept: after off and on the
// controller has its own caps until the platform calls again.
class BluetoothSar final : public IBluetoothSar, public Extension<BluetoothSar> {
 public:
  BluetoothSar();

  // One cap for all.
  Return<void> setBluetoothTxPowerCap(int8_t cap) override;
  // One cap for each technology, on both chains and in beamforming.
  Return<void> setBluetoothTechBasedTxPowerCap(int8_t br, int8_t edr, int8_t ble) override;
  Return<void> setBluetoothModeBasedTxPowerCap(const ChainCaps& chain0, const ChainCaps& chain1,
                                               const BeamformingCaps& beamforming) override;

  void Start(hci::HciFlowControl* flow) override;

 private:
  static void Send(hci::HciFlowControl& flow, const ChainCaps& chain0, const ChainCaps& chain1,
                   const BeamformingCaps& beamforming);

  std::atomic<bool> high_resolution_{false};  // as configured when Bluetooth was turned on
};

}  // namespace hardware::nuvexa::bluetooth::sar::V1_1::implementation
