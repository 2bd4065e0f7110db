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

std::optional<bthalctl::Packet> H4Link::Take() {
  if (arrived_.empty()) {
    uint8_t buffer[65536];
    const ssize_t n = recv(socket_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return std::nullopt;
    if (n <= 0) throw bthalctl::Failure("serve-h4 is gone: " + server_.Output());
    framer_.Push({buffer, static_cast<size_t>(n)});
  }
  if (arrived_.empty()) return std::nullopt;
  bthalctl::Packet packet = std::move(arrived_.front());
  arrived_.pop_front();
  return packet;
}

}  // namespace test
