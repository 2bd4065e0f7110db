#pragma once

#include <android-base/thread_annotations.h>

#include <memory>
#include <mutex>
#include <string>

#include "base/uart_baud_rate.h"
#include "bring_up/low_power.h"
#include "hci_flow_control.h"

namespace android::hardware::bluetooth {

// Brings the controller from power-on to ready, and keeps its low-power mode. One instance, never
// destroyed. Bring-up and shutdown run on the HAL's threads, LpmWakeUp on any that sends.
class BtZvkProtocol {
 public:
  static BtZvkProtocol* GetInstacne();

  // The whole bring-up. False, after a report, when a step that matters failed.
  bool Initialize(hci::HciFlowControl* flow);
  // The short form for a controller that stayed up: HCI reset and chip id.
  bool AcceleratedReset();
  // Ends the low-power mode and forgets the flow control.
  void Shutdown();

  // Wakes the controller before a transmission, which keeps it awake until it is over.
  bool LpmWakeUp() { return low_power_.WakeUp(); }
  void LpmSent() { low_power_.Sent(); }

  // The name that the controller gave after the firmware download.
  std::string LocalName() EXCLUDES(lock_);

 private:
  BtZvkProtocol();

  bool btzvk_reset();
  bool baudrate_change(UartBaudRate rate, bool skip_command);
  bool firmware_download();
  bool read_local_name();
  void lpm_setup();
  bool send_hci_reset();
  uint8_t read_btzvk_chip_id();

  uint8_t send_and_wait(uint16_t opcode, uint8_t length = 0, const uint8_t* params = nullptr);
  std::shared_ptr<hci::HciFlowControl> flow() EXCLUDES(lock_);
  uint8_t chip_id() EXCLUDES(lock_);

  std::mutex lock_;
  std::shared_ptr<hci::HciFlowControl> flow_ GUARDED_BY(lock_);  // null: not initialised
  uint8_t chip_id_ GUARDED_BY(lock_) = 0;                        // 0: unknown
  std::string local_name_ GUARDED_BY(lock_);
  LowPower low_power_;
};

}  // namespace android::hardware::bluetooth
