#pragma once

#include <android-base/thread_annotations.h>

#include <memory>
#include <mutex>

#include "h4/hw_control.h"
#include "transport/async_fd_watcher.h"
#include "transport/transport.h"

namespace android::hardware::bluetooth::hci {

class H4Protocol;

// The controller at a serial port, or behind the kernel's HCI user channel: power and port are the
// hardware control's, packets the H4 protocol's, on the reader thread of a descriptor watcher.
class UartTransport final : public Transport {
 public:
  explicit UartTransport(TransportUpcalls upcalls) : upcalls_(std::move(upcalls)) {}

  bool Open(const TransportSettings& settings) override;
  void Connect(const PacketReceivers& receivers) override EXCLUDES(lock_);
  bool Start() override EXCLUDES(lock_);
  void Stop() override EXCLUDES(lock_);
  void Disconnect() override EXCLUDES(lock_);
  void Close() override;
  // Closes the port and switches the controller off, without reporting the error.
  bool Abandon(BqrErrorCode code, const std::string& reason) override EXCLUDES(lock_);
  size_t Send(uint8_t type, const uint8_t* data, size_t length, bool flag) override EXCLUDES(lock_);
  bool IsReady() const override { return hw_.UartFd() >= 0; }
  void BaudrateChange(UartBaudRate rate) override { hw_.BaudrateChange(rate); }
  uint32_t RequiredBaudRate() const override { return 4000000; }
  bool LpmSetup() override { return hw_.LpmSetup(); }
  void LpmTeardown() override { hw_.LpmTeardown(); }
  bool LpmSuspend() override { return hw_.LpmSuspend(); }
  bool LpmWakeUp() override { return hw_.LpmWakeUp(); }
  bool IsLpmRunning() override { return hw_.IsLpmRunning(); }
  bool DebugDump(int fd, const std::string& first, const std::string& second) override;

 private:
  std::shared_ptr<H4Protocol> h4() EXCLUDES(lock_);

  hwcontrol::BtHwControl& hw_ = hwcontrol::BtHwControl::Get();
  const TransportUpcalls upcalls_;
  std::mutex lock_;                                   // a leaf
  std::shared_ptr<H4Protocol> h4_ GUARDED_BY(lock_);  // null: not connected
  async::AsyncFdWatcher watcher_;
};

}  // namespace android::hardware::bluetooth::hci
