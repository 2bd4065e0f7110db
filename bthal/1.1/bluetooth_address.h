#pragma once

#include <functional>

#include "hci_flow_control.h"

namespace android::hardware::bluetooth::hci {

// Writes the provisioned device address into the controller and waits for the answer: without
// limit, but not longer than flow runs, nor beyond AbandonProvisioning(), nor when abandoned() is
// true already. Returns whether the controller accepted it; false at once when flow is null.
bool ApplyProvisionBDAddress(HciFlowControl* flow, const std::function<bool()>& abandoned);

// Ends the wait of ApplyProvisionBDAddress(), if there is one. Any thread.
void AbandonProvisioning();

}  // namespace android::hardware::bluetooth::hci
