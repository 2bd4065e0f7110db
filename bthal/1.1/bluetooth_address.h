#pragma once

#include <functional>

#include "hci_flow_control.h"

namespace android::hardware::bluetooth::hci {

// Writes the provisioned device address into the controller and waits for the answer: without
// limit, but not longer than flow runs or abandoned() is false. Returns whether the controller
// accepted it; false at once when flow is null.
bool ApplyProvisionBDAddress(HciFlowControl* flow, const std::function<bool()>& abandoned);

// Makes a waiting ApplyProvisionBDAddress() ask abandoned() again. Any thread.
void ReconsiderProvisioning();

}  // namespace android::hardware::bluetooth::hci
