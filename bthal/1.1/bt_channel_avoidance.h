#pragma once

#include <hardware/nuvexa/bluetooth/bt_channel_avoidance/1.0/IBTChannelAvoidance.h>

#include "extension/extension_command.h"

namespace hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::implementation {

// The service that hands the map of classic channels to avoid to the controller (Bluetooth Core
// 5.3, Vol 4, Part E, 7.3.46), unchecked. Forgets the map at once: it is not sent again after off
// and on.
class BTChannelAvoidance final : public IBTChannelAvoidance,
                                 public ::android::hardware::bluetooth::ExtensionCommand {
 public:
  BTChannelAvoidance();

  // channelMap: bit n of 80 for channel n, 1 when it may be used.
  ::android::hardware::Return<void> setBluetoothChannelStatus(
      const ::android::hardware::hidl_array<uint8_t, 10>& channelMap) override;

  static void OnBluetoothEnabled(::android::hardware::bluetooth::hci::HciFlowControl* flow);
  static void OnBluetoothDisabled();

 private:
  // The one that watches and counts, whichever instance is called.
  static BTChannelAvoidance& Shared();
};

}  // namespace hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::implementation
