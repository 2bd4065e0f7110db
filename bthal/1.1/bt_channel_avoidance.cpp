#define LOG_TAG "bthal.channel_avoidance"

#include "bt_channel_avoidance.h"

#include <android-base/logging.h>

#include "hci/packet.h"

namespace hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::implementation {

namespace {
constexpr uint16_t kOpcodeSetAfhHostChannelClassification = 0x0C3F;
}

BTChannelAvoidance::BTChannelAvoidance()
    : Extension(LOG_TAG, kOpcodeSetAfhHostChannelClassification) {}

Return<void> BTChannelAvoidance::setBluetoothChannelStatus(
    const hidl_array<uint8_t, 10>& channelMap) {
  const auto flow = Shared().flow();
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Unable to set channel map <" << toString(channelMap) << ">";
    return Void();
  }
  LOG(INFO) << __func__ << ": Channel Map <" << toString(channelMap) << ">";
  Shared().SendCommand(*flow, hci::BuildCommand(kOpcodeSetAfhHostChannelClassification,
                                                channelMap.elementCount(), channelMap.data()));
  return Void();
}

}  // namespace hardware::nuvexa::bluetooth::bt_channel_avoidance::V1_0::implementation
