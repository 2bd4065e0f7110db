#include "serial_controller.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <stdexcept>

namespace bench {

SerialController::SerialController() {
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) {
    throw std::runtime_error("no pseudo-terminal");
  }
  tty_ = ptsname(master_);
  slave_ = open(tty_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios settings{};
  tcgetattr(slave_, &settings);
  cfmakeraw(&settings);
  tcsetattr(slave_, TCSANOW, &settings);
  stop_ = eventfd(0, EFD_CLOEXEC);
  thread_ = std::thread([this] { Answer(); });
}

SerialController::~SerialController() {
  const uint64_t one = 1;
  if (write(stop_, &one, sizeof one) < 0) abort();
  thread_.join();
  close(stop_);
  close(slave_);
  close(master_);
}

void SerialController::SendEvent(const Bytes& event) {
  Bytes bytes = {0x04};
  bytes.insert(bytes.end(), event.begin(), event.end());
  std::lock_guard<std::mutex> guard(write_lock_);
  for (size_t at = 0; at < bytes.size();) {
    const ssize_t n = write(master_, bytes.data() + at, bytes.size() - at);
    if (n > 0) at += static_cast<size_t>(n);
  }
}

void SerialController::Answer() {
  Bytes pending;
  for (;;) {
    pollfd fds[] = {{master_, POLLIN, 0}, {stop_, POLLIN, 0}};
    poll(fds, 2, -1);
    if (fds[1].revents != 0) return;
    uint8_t buffer[4096];
    const ssize_t n = read(master_, buffer, sizeof buffer);
    if (n <= 0) continue;
    pending.insert(pending.end(), buffer, buffer + n);
    constexpr size_t kHeader = 4;  // type, opcode, parameter length
    while (pending.size() >= kHeader && pending.size() >= kHeader + pending[3]) {
      SendEvent(Success(&pending[1]));
      pending.erase(pending.begin(), pending.begin() + static_cast<long>(kHeader) + pending[3]);
    }
  }
}

}  // namespace bench
