#pragma once

#include "transport/transport.h"

namespace android::hardware::bluetooth::hci {

// The controller behind a low-power co-processor: packets and control requests travel as messages
// of QvrHelper; the controller's own power switch stays the hardware control's.
class CoProcessorTransport final : public Transport {
 public:
  explicit CoProcessorTransport(const TransportUpcalls& upcalls);

  bool Open(const TransportSettings& settings) override;
  void Connect(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
               const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) override;
  bool Start() override { return true; }
  void Stop() override {}
  void Disconnect() override;
  void Close() override;
  // Reports the error, which ends the process.
  bool Abandon(V1_1::zvkbtlinux::debug::BqrErrorCode code, const std::string& reason) override;
  size_t Send(uint8_t type, const uint8_t* data, size_t length, bool flag) override;
  bool IsReady() const override;
  void BaudrateChange(UartBaudRate rate) override;
  uint32_t RequiredBaudRate() const override { return 6000000; }
  bool LpmSetup() override;
  void LpmTeardown() override;
  // The co-processor keeps the wake line itself.
  bool LpmSuspend() override { return true; }
  bool LpmWakeUp() override { return true; }
  bool IsLpmRunning() override;
  bool DebugDump(int fd, const std::string& first, const std::string& second) override;
};

}  // namespace android::hardware::bluetooth::hci
