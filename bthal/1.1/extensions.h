#pragma once

#include "hci_flow_control.h"

namespace android::hardware::bluetooth {

// Start and stop the extension services and the activity statistics with Bluetooth, always in the
// same order. Calls come one at a time.
void EnableExtensions(hci::HciFlowControl* flow);
void DisableExtensions();

}  // namespace android::hardware::bluetooth
