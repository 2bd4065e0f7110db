// A controller that completes each command of a bring-up.
#pragma once

#include "bthal/scripted_controller.h"

namespace test {

inline uint16_t OpcodeOf(const Bytes& command) {
  return static_cast<uint16_t>(command[0] | command[1] << 8);
}

// Success, with what the bring-up reads from it: the chip id and the local name "ZVK".
inline Bytes BringUpAnswer(const Bytes& command, uint8_t chip_id = 0x99) {
  if (OpcodeOf(command) == 0xFC79) return ScriptedController::Complete(command, 0, {chip_id});
  if (OpcodeOf(command) == 0x0C14) {
    return ScriptedController::Complete(command, 0, {'Z', 'V', 'K', 0});
  }
  return ScriptedController::Complete(command, 0);
}

}  // namespace test
