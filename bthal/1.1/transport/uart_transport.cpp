#include "transport/uart_transport.h"

#include "h4/h4_protocol.h"

namespace android::hardware::bluetooth::hci {

std::shared_ptr<H4Protocol> UartTransport::h4() {
  std::lock_guard<std::mutex> guard(lock_);
  return h4_;
}

bool UartTransport::Open(const TransportSettings& settings) {
  hw_.PowerControl(false);
  if (!hw_.PowerControl(true)) return false;
  if (!hw_.UserialOpen(settings.userial_type, settings.uart_port)) {
    hw_.PowerControl(false);
    return false;
  }
  return true;
}

void UartTransport::Connect(const PacketReceivers& receivers) {
  auto h4 = std::make_shared<H4Protocol>(hw_.UartFd(), receivers.event, receivers.acl,
                                         receivers.sco, receivers.iso, upcalls_);
  std::lock_guard<std::mutex> guard(lock_);
  h4_.swap(h4);
}

bool UartTransport::Start() {
  // The reader holds the protocol object itself: it may be stopped from inside its own call.
  return watcher_.WatchFdForNonBlockingReads(hw_.UartFd(),
                                             [h4 = h4()](int fd) { h4->OnDataReady(fd); }) == 0;
}

// A line that has hung up stays readable: without the pause that the protocol's closing ends, the
// reader, of real-time priority, would leave nobody the time to stop it.
void UartTransport::Stop() {
  watcher_.Unwatch();
  if (const std::shared_ptr<H4Protocol> h4 = this->h4()) h4->Close();
  watcher_.StopWatchingFileDescriptors();
}

void UartTransport::Disconnect() {
  std::shared_ptr<H4Protocol> h4;
  std::lock_guard<std::mutex> guard(lock_);
  h4.swap(h4_);
}

void UartTransport::Close() {
  hw_.UserialClose();
  hw_.PowerControl(false);
}

// In this order, no thread reads or writes the descriptor once its number may belong to another
// file.
bool UartTransport::Abandon(BqrErrorCode /*code*/, const std::string& /*reason*/) {
  watcher_.Unwatch();
  if (const std::shared_ptr<H4Protocol> h4 = this->h4()) h4->Close();
  const int fd = hw_.UartFd();
  if (fd >= 0) watcher_.StopWatchingFileDescriptor(fd);
  Close();
  return false;
}

size_t UartTransport::Send(uint8_t type, const uint8_t* data, size_t length, bool /*flag*/) {
  const std::shared_ptr<H4Protocol> h4 = this->h4();
  return h4 == nullptr ? 0 : h4->Send(type, data, length);
}

bool UartTransport::DebugDump(int fd, const std::string& first, const std::string& second) {
  hw_.GetFsDebugDump(fd, first);
  hw_.GetFsDebugDump(fd, second);
  return true;
}

}  // namespace android::hardware::bluetooth::hci
