#include "system/h4_link.h"

#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>

#include "support/unix_socket.h"
#include "support/wait.h"
#include "tools/base/failure.h"

namespace test {
H4Link::H4Link(const Handset& handset, Writes writes)
    : writes_(writes),
      server_(handset.CtlCommand({"--no-holder", "serve-h4", "--unix", handset.Path("h4")})) {
  if (!server_.WaitForOutput("ready unix:", kDeadline)) {
    throw std::runtime_error("serve-h4: " + server_.Output() + handset.Log());
  }
  socket_.reset(ConnectUnix(handset.Path("h4"), SOCK_STREAM));
  if (socket_.get() < 0) throw std::runtime_error("serve-h4: nobody listens");
}

void H4Link::Send(const bthalctl::Packet& packet) {
  bthalctl::Bytes bytes = {static_cast<uint8_t>(packet.type)};
  bytes.insert(bytes.end(), packet.bytes.begin(), packet.bytes.end());
  const size_t at_once = writes_ == Writes::kSingleBytes ? 1 : bytes.size();
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = send(socket_.get(), bytes.data() + done,
                           std::min(at_once, bytes.size() - done), MSG_NOSIGNAL);
    if (n < 0) throw bthalctl::Failure("serve-h4 is gone: " + server_.Output());
    done += static_cast<size_t>(n);
  }
}

void H4Link::ReadAvailable() {
  unread_.erase(unread_.begin(), unread_.begin() + static_cast<ptrdiff_t>(taken_));
  taken_ = 0;
  uint8_t buffer[65536];
  const ssize_t n = recv(socket_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) throw bthalctl::Failure("serve-h4 is gone: " + server_.Output());
  unread_.insert(unread_.end(), buffer, buffer + n);
}

std::optional<bthalctl::Packet> H4Link::Take() {
  const auto whole = [this]() -> size_t {  // size of the first packet, 0 when it is not all there
    const size_t left = unread_.size() - taken_;
    if (left == 0) return 0;
    const uint8_t* front = unread_.data() + taken_;
    const auto header = bthalctl::HeaderSize(front[0]);
    if (!header) throw bthalctl::Failure("no packet type: " + std::to_string(front[0]));
    if (left < 1 + *header) return 0;
    const size_t size =
        1 + bthalctl::PacketSize(static_cast<bthalctl::PacketType>(front[0]), front + 1);
    return left < size ? 0 : size;
  };
  if (whole() == 0) ReadAvailable();
  const size_t size = whole();
  if (size == 0) return std::nullopt;
  const uint8_t* front = unread_.data() + taken_;
  bthalctl::Packet packet{static_cast<bthalctl::PacketType>(front[0]),
                          bthalctl::Bytes(front + 1, front + size)};
  taken_ += size;
  return packet;
}

}  // namespace test
