#include "extensions.h"

#include "bluetooth_Activity.h"
#include "bluetooth_ccc.h"
#include "bluetooth_ewp.h"
#include "bluetooth_sar.h"
#include "bt_channel_avoidance.h"
#include "hci_inject.h"

namespace android::hardware::bluetooth {
namespace {

using V1_1::zvkbtlinux::activity::BtActivitiesLogger;
namespace vendor = ::hardware::nuvexa::bluetooth;

struct Follower {
  void (*enable)(hci::HciFlowControl* flow);
  void (*disable)();
};

template <typename Service>
constexpr Follower Of() {
  return {Service::OnBluetoothEnabled, Service::OnBluetoothDisabled};
}

constexpr Follower kFollowers[] = {
    Of<vendor::bt_channel_avoidance::V1_0::implementation::BTChannelAvoidance>(),
    Of<vendor::sar::V1_1::implementation::BluetoothSar>(),
    Of<vendor::ccc::V1_1::implementation::BluetoothCcc>(),
    Of<vendor::ewp::V1_0::implementation::BluetoothEwp>(),
    Of<vendor::ext::V1_0::implementation::BluetoothExt>(),
    {[](hci::HciFlowControl* flow) { BtActivitiesLogger::GetInstacne()->OnBluetoothEnabled(flow); },
     [] { BtActivitiesLogger::GetInstacne()->OnBluetoothDisabled(); }},
};

}  // namespace

void EnableExtensions(hci::HciFlowControl* flow) {
  for (const Follower& follower : kFollowers) follower.enable(flow);
}

void DisableExtensions() {
  for (const Follower& follower : kFollowers) follower.disable();
}

}  // namespace android::hardware::bluetooth
