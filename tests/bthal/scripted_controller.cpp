#include "bthal/scripted_controller.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace test {

ScriptedController::ScriptedController(Pty& pty, Script script)
    : pty_(pty), script_(std::move(script)) {
  if (pipe2(stop_, O_CLOEXEC) != 0) abort();
  thread_ = std::thread([this] { Run(); });
}

ScriptedController::~ScriptedController() { Stop(); }

Bytes ScriptedController::Stop() {
  if (thread_.joinable()) {
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
  }
  return stream_;
}

std::vector<Bytes> ScriptedController::Commands() {
  const std::lock_guard<std::mutex> guard(lock_);
  return commands_;
}

Bytes ScriptedController::Complete(const Bytes& command, uint8_t status, const Bytes& parameters) {
  return Concat(
      {0x0E, static_cast<uint8_t>(4 + parameters.size()), 0x01, command[0], command[1], status},
      parameters);
}

void ScriptedController::Run() {
  for (;;) {
    pollfd fds[] = {{pty_.master(), POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) continue;
    if (fds[1].revents != 0) return;
    uint8_t chunk[4096];
    const ssize_t n = read(pty_.master(), chunk, sizeof chunk);
    if (n <= 0) return;
    stream_.insert(stream_.end(), chunk, chunk + n);
    while (stream_.size() >= 4 && stream_.size() >= 4u + stream_[3]) {
      const auto end = stream_.begin() + 4 + stream_[3];
      const Bytes command(stream_.begin() + 1, end);
      stream_.erase(stream_.begin(), end);
      {
        const std::lock_guard<std::mutex> guard(lock_);
        commands_.push_back(command);
      }
      const Bytes answer = script_(command);
      if (answer.empty()) continue;
      pty_.WriteToHost(Concat({0x04}, answer));
    }
  }
}

}  // namespace test
