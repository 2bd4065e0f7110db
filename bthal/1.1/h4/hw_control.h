#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "base/uart_baud_rate.h"

namespace android::hardware::bluetooth::hwcontrol {

// Owns the controller's power switch (rfkill), the host's end of the UART or of the kernel's HCI
// user channel, and the host-wake line of the low-power mode. One instance, used through the
// transport shim. Any thread.
class BtHwControl {
 public:
  static BtHwControl& Get();

  // Switches the controller on or off. True also where there is no switch for it.
  bool PowerControl(bool on);

  // Opens the port of this userial type: 1 the tty uart_port, at 115200 bit/s with hardware flow
  // control; anything else the HCI user channel.
  bool UserialOpen(uint32_t userial_type, const std::string& uart_port);
  // No thread may watch or write the descriptor any more.
  void UserialClose();
  // The tty or HCI socket; -1 when closed.
  int UartFd() const { return uart_fd_.load(std::memory_order_acquire); }

  // Sets the host's line speed; an unsupported rate changes nothing.
  void BaudrateChange(UartBaudRate rate);

  // The wake line: enables the driver and asserts wake; disables it; lets the controller sleep;
  // wakes it. The last two do nothing while the low-power mode is off.
  bool LpmSetup() EXCLUDES(lpm_lock_);
  void LpmTeardown() EXCLUDES(lpm_lock_);
  bool LpmSuspend() EXCLUDES(lpm_lock_);
  bool LpmWakeUp() EXCLUDES(lpm_lock_);
  bool IsLpmRunning() EXCLUDES(lpm_lock_);

  // Appends the kernel debug file path to fd, or why it cannot be read.
  void GetFsDebugDump(int fd, const std::string& path);

 private:
  BtHwControl() = default;

  std::atomic<int> uart_fd_{-1};
  std::mutex lpm_lock_;
  base::unique_fd lpm_fd_ GUARDED_BY(lpm_lock_);  // open while the low-power mode runs
};

}  // namespace android::hardware::bluetooth::hwcontrol
