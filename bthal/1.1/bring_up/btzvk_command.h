// Single HCI commands of the bring-up: one at a time. The calling thread waits for each answer,
// with a time-out of 2 s.
#pragma once

#include <cstdint>

#include "hci_flow_control.h"

namespace android::hardware::bluetooth {

// What a command that was not answered in time returns, as if the controller had.
inline constexpr uint8_t kCommandTimedOut = 3;

// Sends a command through the queue and waits for its Command Complete, 2 s at most. Returns the
// status; kCommandTimedOut also when flow is null or is halted meanwhile, or cannot send.
uint8_t btzvk_send_command_wait_complete(hci::HciFlowControl* flow, uint16_t opcode, uint8_t length,
                                         const uint8_t* params);

// Sends a command at once and does not wait. Returns whether the transport took it.
bool btzvk_send_command_no_wait(hci::HciFlowControl* flow, uint16_t opcode, uint8_t length,
                                const uint8_t* params);

// The whole Command Complete event of the last successful wait: return parameters from byte 6.
hidl_vec<uint8_t> btzvk_last_completion();

}  // namespace android::hardware::bluetooth
