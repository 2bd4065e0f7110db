#pragma once

#include <cstdint>
#include <string>

namespace android::hardware::bluetooth::conf {

// The device's settings, read once from the vendor configuration files (lines "Key = value", '#'
// begins a comment line): the base file, then the overlay, whose keys win. Built on first use,
// never destroyed, not written afterwards. Some keys are copied into system properties instead.
class Config {
 public:
  static const Config* GetInstance();
  // The settings as the files have them now.
  Config();

  // The UART's path; empty unless the userial type is 1.
  const std::string& uart_port() const { return uart_port_; }
  // 0 kernel HCI driver, 1 UART, 2 co-processor.
  int32_t userial_type() const { return userial_type_; }
  // How long the coexistence device waits after a reset notice, in ms.
  int32_t big_hammer_reg_on_delay_ms() const { return big_hammer_reg_on_delay_ms_; }
  bool sar_back_off_high_resolution() const { return sar_back_off_high_resolution_; }

  // Firmware records may go out without waiting for each answer.
  bool GetFastDownloadState() const { return !fast_download_disabled_; }
  // The controller is brought up before a stack asks, and stays up between stacks. Reads a property
  // on each call.
  bool IsAcceleratedBtOnSupported() const;

 private:
  void LoadConfig(const char* path);
  void StoreConfigValue(const char* name, const char* value);

  bool fast_download_disabled_ = false;
  bool sar_back_off_high_resolution_ = false;
  int32_t big_hammer_reg_on_delay_ms_ = 100;
  std::string uart_port_ = "/dev/ttySAC16";
  int32_t userial_type_ = 1;
  bool accelerated_bt_disabled_ = false;
};

}  // namespace android::hardware::bluetooth::conf
