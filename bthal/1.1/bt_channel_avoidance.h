#pragma once

#include <hardware/nuvexa/bluetooth/bt_channel_avoidance/1.0/IBTChannelAvoidance.h>

#include "extension/extension.h"

namespace hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::implementation {

// The service that hands the map of classic channels to avoid to the controller (Core 5.3,
// 4.E.7.3.46), unchecked. The map is not kept: it is not sent again after off and on.
class BTChannelAvoidance final : public IBTChannelAvoidance, public Extension<BTChannelAvoidance> {
 public:
  BTChannelAvoidance();

  // channelMap: bit n of 80 for channel n, 1 when it may be used.
  Return<void> setBluetoothChannelStatus(const hidl_array<uint8_t, 10>& channelMap) override;
};

}  // namespace hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::implementation
