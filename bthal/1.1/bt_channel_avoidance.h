#pragma once

#include <hardware/nuvexa/bluetooth/bt_channel_avoidance/1.0/IBTChannelAvoidance.h>

#include "extension_refusal.h"

namespace hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::implementation {

// The channel-avoidance service; refuses every call.
class BTChannelAvoidance : public IBTChannelAvoidance {
 public:
  ::android::hardware::Return<void> setBluetoothChannelStatus(
      const ::android::hardware::hidl_array<uint8_t, 10>& /*channelMap*/) override {
    return Refuse(__func__);
  }

 private:
  static ::android::hardware::Return<void> Refuse(const char* call) {
    ::android::hardware::bluetooth::RefuseExtensionCall("bthal.channel_avoidance", call);
    return ::android::hardware::Void();
  }
};

}  // namespace hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::implementation
