#include "transport/uart_transport.h"

#include "h4/h4_protocol.h"
#include "h4/hw_control.h"

namespace android::hardware::bluetooth::hci {

using ::android::hardware::bluetooth::hwcontrol::BtHwControl;

std::shared_ptr<H4Protocol> UartTransport::h4() {
  std::lock_guard<std::mutex> guard(lock_);
  return h4_;
}

bool UartTransport::Open(const TransportSettings& settings) {
  BtHwControl& hw = BtHwControl::Get();
  hw.PowerControl(false);
  if (!hw.PowerControl(true)) return false;
  if (!hw.UserialOpen(settings.userial_type, settings.uart_port)) {
    hw.PowerControl(false);
    return false;
  }
  return true;
}

void UartTransport::Connect(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                            const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) {
  auto h4 = std::make_shared<H4Protocol>(BtHwControl::Get().UartFd(), event_cb, acl_cb, sco_cb,
                                         iso_cb, upcalls_);
  std::lock_guard<std::mutex> guard(lock_);
  h4_.swap(h4);
}

bool UartTransport::Start() {
  // The reader holds the protocol object itself: it may be stopped from inside its own call.
  return watcher_.WatchFdForNonBlockingReads(BtHwControl::Get().UartFd(),
                                             [h4 = h4()](int fd) { h4->OnDataReady(fd); }) == 0;
}

void UartTransport::Stop() {
  if (const std::shared_ptr<H4Protocol> h4 = this->h4()) h4->Close();
  watcher_.StopWatchingFileDescriptors();
}

void UartTransport::Disconnect() {
  std::shared_ptr<H4Protocol> h4;
  std::lock_guard<std::mutex> guard(lock_);
  h4.swap(h4_);
}

void UartTransport::Close() {
  BtHwControl::Get().UserialClose();
  BtHwControl::Get().PowerControl(false);
}

// In this order, nobody reads or writes the port's number once it may belong to another file.
bool UartTransport::Abandon(V1_1::zvkbtlinux::debug::BqrErrorCode /*code*/,
                            const std::string& /*reason*/) {
  if (const std::shared_ptr<H4Protocol> h4 = this->h4()) h4->Close();
  const int fd = BtHwControl::Get().UartFd();
  if (fd >= 0) watcher_.StopWatchingFileDescriptor(fd);
  Close();
  return false;
}

size_t UartTransport::Send(uint8_t type, const uint8_t* data, size_t length, bool /*flag*/) {
  const std::shared_ptr<H4Protocol> h4 = this->h4();
  return h4 == nullptr ? 0 : h4->Send(type, data, length);
}

bool UartTransport::IsReady() const { return BtHwControl::Get().UartFd() >= 0; }
void UartTransport::BaudrateChange(UartBaudRate rate) { BtHwControl::Get().BaudrateChange(rate); }
bool UartTransport::LpmSetup() { return BtHwControl::Get().LpmSetup(); }
void UartTransport::LpmTeardown() { BtHwControl::Get().LpmTeardown(); }
bool UartTransport::LpmSuspend() { return BtHwControl::Get().LpmSuspend(); }
bool UartTransport::LpmWakeUp() { return BtHwControl::Get().LpmWakeUp(); }
bool UartTransport::IsLpmRunning() { return BtHwControl::Get().IsLpmRunning(); }

bool UartTransport::DebugDump(int fd, const std::string& first, const std::string& second) {
  BtHwControl::Get().GetFsDebugDump(fd, first);
  BtHwControl::Get().GetFsDebugDump(fd, second);
  return true;
}

}  // namespace android::hardware::bluetooth::hci
