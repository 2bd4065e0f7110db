#include "serial_controller.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace bench {

using wire::ByteView;
using wire::PacketType;

SerialController::SerialController() : stop_(eventfd(0, EFD_CLOEXEC)) {
  thread_ = std::thread([this] { Read(); });
}

SerialController::~SerialController() {
  const uint64_t one = 1;
  if (write(stop_.get(), &one, sizeof one) < 0) abort();
  thread_.join();
}

void SerialController::SendEvent(const Bytes& event) { Send(PacketType::kEvent, event); }

void SerialController::SendAcl(const Bytes& data) { Send(PacketType::kAcl, data); }

void SerialController::Send(PacketType type, const Bytes& packet) {
  const std::lock_guard<std::mutex> guard(write_lock_);
  pty_.WriteToHost(test::Concat({static_cast<uint8_t>(type)}, packet));
}

void SerialController::OnPacket(PacketType type, ByteView packet) {
  if (type == PacketType::kAcl) acl_.Add(packet.size());
  if (type != PacketType::kCommand || packet.U16(0) == kSilentOpcode) return;
  SendEvent(Success(packet.data()));
}

void SerialController::Read() {
  wire::H4Framer framer(
      wire::H4Framer::From::kHost,
      [this](PacketType type, ByteView packet) { OnPacket(type, packet); }, [](uint8_t) {});
  for (;;) {
    pollfd fds[] = {{pty_.master(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
    poll(fds, 2, -1);
    if (fds[1].revents != 0) return;
    uint8_t buffer[4096];
    const ssize_t n = read(pty_.master(), buffer, sizeof buffer);
    if (n > 0) framer.Push({buffer, static_cast<size_t>(n)});
  }
}

}  // namespace bench
