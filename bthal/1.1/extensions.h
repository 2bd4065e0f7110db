#pragma once

#include "hci_flow_control.h"

namespace android::hardware::bluetooth {

// What follows Bluetooth on and off beside the HAL object: the extension services and the activity
// statistics, always in the same order. Calls come one at a time.
void EnableExtensions(hci::HciFlowControl* flow);
void DisableExtensions();

}  // namespace android::hardware::bluetooth
