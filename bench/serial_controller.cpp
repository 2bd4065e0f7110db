#include "serial_controller.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace bench {

SerialController::SerialController() : stop_(eventfd(0, EFD_CLOEXEC)) {
  thread_ = std::thread([this] { Answer(); });
}

SerialController::~SerialController() {
  const uint64_t one = 1;
  if (write(stop_.get(), &one, sizeof one) < 0) abort();
  thread_.join();
}

void SerialController::SendEvent(const Bytes& event) {
  const std::lock_guard<std::mutex> guard(write_lock_);
  pty_.WriteToHost(test::Concat({0x04}, event));
}

void SerialController::Answer() {
  Bytes pending;
  for (;;) {
    pollfd fds[] = {{pty_.master(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
    poll(fds, 2, -1);
    if (fds[1].revents != 0) return;
    uint8_t buffer[4096];
    const ssize_t n = read(pty_.master(), buffer, sizeof buffer);
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
