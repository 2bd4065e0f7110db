#pragma once

#include <cstdint>
#include <string>

#include "hci_flow_control.h"

namespace android::hardware::bluetooth {

// Sends the firmware patch of one chip to the controller, which then starts it. Lives for one
// download, on the thread that brings the controller up.
class FirmwareDownload {
 public:
  // flow: null counts as a controller that does not answer. fast_allowed: records may go out
  // without waiting for each answer, where the chip can do that.
  FirmwareDownload(hci::HciFlowControl* flow, uint8_t chip_id, bool fast_allowed)
      : flow_(flow), chip_id_(chip_id), fast_allowed_(fast_allowed) {}

  // Returns whether the controller took everything, the start of the firmware included.
  bool Run();

 private:
  bool SendRecords(const std::string& path);
  bool decide_fast_download();
  bool enable_fast_download();
  // Returns the status of the answer.
  uint8_t Send(uint16_t opcode, uint8_t length, const uint8_t* params);

  hci::HciFlowControl* const flow_;
  const uint8_t chip_id_;
  const bool fast_allowed_;
};

}  // namespace android::hardware::bluetooth
