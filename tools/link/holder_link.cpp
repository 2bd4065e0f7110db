#include <root_folder/root_folder.h>
#include <sys/socket.h>

#include <cerrno>

#include "tools/base/failure.h"
#include "tools/base/unix_socket.h"
#include "tools/link/holder.h"
#include "tools/link/holder_protocol.h"

namespace bthalctl {

std::unique_ptr<HolderLink> HolderLink::Connect() {
  auto fd = ConnectUnix(root_folder::Resolve(holder::kSocket), SOCK_SEQPACKET);
  if (!fd.ok()) return nullptr;
  return std::unique_ptr<HolderLink>(new HolderLink(std::move(fd)));
}

void HolderLink::Send(const Packet& packet) {
  Write(Writer().U8(static_cast<unsigned>(packet.type)).Append(packet.bytes).Done());
}

void HolderLink::Write(const Bytes& message) {
  while (send(fd_.get(), message.data(), message.size(), MSG_NOSIGNAL) < 0) {
    if (errno == EAGAIN) {
      std::vector<pollfd> room = {{fd_.get(), POLLOUT, 0}};
      Wait(room, kNever);
    } else if (errno != EINTR) {
      throw Failure(ExitCode::kNoService, "the holder of the attachment ended");
    }
  }
}

std::optional<Bytes> HolderLink::Read() {
  Bytes message(holder::kMaxMessage);
  ssize_t size = 0;
  do {
    size = recv(fd_.get(), message.data(), message.size(), 0);
  } while (size < 0 && errno == EINTR);
  if (size < 0 && errno == EAGAIN) return std::nullopt;
  if (size <= 0) throw Failure(ExitCode::kNoService, "the holder of the attachment ended");
  message.resize(static_cast<size_t>(size));
  return message;
}

std::optional<Packet> HolderLink::Take() {
  while (std::optional<Bytes> message = Read()) {
    const uint8_t kind = message->front();
    if (wire::LayoutOf(kind) == nullptr) continue;
    return Packet{static_cast<PacketType>(kind), Bytes(message->begin() + 1, message->end())};
  }
  return std::nullopt;
}

std::optional<std::string> AskHolder(uint8_t kind, std::chrono::milliseconds timeout) {
  const auto fd = ConnectUnix(root_folder::Resolve(holder::kSocket), SOCK_SEQPACKET);
  if (!fd.ok() || send(fd.get(), &kind, 1, MSG_NOSIGNAL) != 1) return std::nullopt;
  const TimePoint deadline = Clock::now() + timeout;
  Bytes answer(holder::kMaxMessage);
  while (WaitReadable(fd.get(), deadline)) {
    const ssize_t size = recv(fd.get(), answer.data(), answer.size(), 0);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (size <= 0) return std::nullopt;
    if (answer.front() == kind) return std::string(answer.begin() + 1, answer.begin() + size);
  }
  throw Failure("the holder of the attachment did not answer");
}

}  // namespace bthalctl
