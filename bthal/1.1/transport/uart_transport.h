#pragma once

#include <android-base/thread_annotations.h>

#include <memory>
#include <mutex>

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
  void Connect(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
               const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) override EXCLUDES(lock_);
  bool Start() override EXCLUDES(lock_);
  void Stop() override EXCLUDES(lock_);
  void Disconnect() override EXCLUDES(lock_);
  void Close() override;
  // The error is not reported: the port is closed, and the controller switched off.
  bool Abandon(V1_1::zvkbtlinux::debug::BqrErrorCode code, const std::string& reason) override
      EXCLUDES(lock_);
  size_t Send(uint8_t type, const uint8_t* data, size_t length, bool flag) override EXCLUDES(lock_);
  bool IsReady() const override;
  void BaudrateChange(UartBaudRate rate) override;
  uint32_t RequiredBaudRate() const override { return 4000000; }
  bool LpmSetup() override;
  void LpmTeardown() override;
  bool LpmSuspend() override;
  bool LpmWakeUp() override;
  bool IsLpmRunning() override;
  bool DebugDump(int fd, const std::string& first, const std::string& second) override;

 private:
  std::shared_ptr<H4Protocol> h4() EXCLUDES(lock_);

  const TransportUpcalls upcalls_;
  std::mutex lock_;                                   // a leaf
  std::shared_ptr<H4Protocol> h4_ GUARDED_BY(lock_);  // null: not connected
  async::AsyncFdWatcher watcher_;
};

}  // namespace android::hardware::bluetooth::hci
