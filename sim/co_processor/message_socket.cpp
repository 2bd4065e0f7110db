#include "sim/co_processor/message_socket.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "sim/base/log.h"

namespace zvk {
namespace {

constexpr size_t kMostBytes = 192 * 1024;  // of a datagram
constexpr size_t kHeaderBytes = 16;
constexpr size_t kMostWaitingBytes = 1048576;  // bytes that wait for the host; more are dropped
constexpr int kReceivesPerTurn = 64;           // then everybody else has a turn

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

MessageSocket::MessageSocket(EventLoop& loop, const std::string& path, OnMessage on_message)
    : loop_(loop), path_(path), on_message_(std::move(on_message)), received_(kMostBytes + 1) {
  Open();
}

MessageSocket::~MessageSocket() { Close(); }

void MessageSocket::Open() {
  if (listener_.ok()) return;
  // A name of any length is bound through the folder's descriptor.
  const size_t slash = path_.rfind('/');
  const UniqueFd folder(open(path_.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = "/proc/self/fd/" + std::to_string(folder.get()) + path_.substr(slash);
  std::strncpy(address.sun_path, name.c_str(), sizeof(address.sun_path) - 1);
  unlink(path_.c_str());
  listener_ = UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!folder.ok() || !listener_.ok() ||
      bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      chmod(path_.c_str(), 0660) != 0 || listen(listener_.get(), 4) != 0) {
    Fail(path_);
  }
  loop_.Watch(listener_.get(), EPOLLIN, [this](uint32_t) { Accept(); });
}

// The socket goes first: a host that is disconnected finds nobody.
void MessageSocket::Close() {
  if (listener_.ok()) {
    unlink(path_.c_str());
    loop_.Unwatch(listener_.get());
    listener_.Reset();
  }
  Disconnect();
}

void MessageSocket::Accept() {
  UniqueFd host(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!host.ok()) return;
  if (host_.ok()) {
    Log("co-processor: a second host is turned away");
    return;
  }
  host_ = std::move(host);
  ++connections_;
  loop_.Watch(host_.get(), EPOLLIN, [this](uint32_t events) { OnReady(events); });
}

void MessageSocket::Disconnect() {
  if (!host_.ok()) return;
  loop_.Unwatch(host_.get());
  host_.Reset();
  queue_.clear();
  queued_bytes_ = 0;
}

void MessageSocket::OnReady(uint32_t events) {
  if ((events & EPOLLOUT) != 0) Flush();
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) Receive();
}

void MessageSocket::Receive() {
  for (int turn = 0; turn < kReceivesPerTurn && host_.ok(); ++turn) {
    const ssize_t count = recv(host_.get(), received_.data(), received_.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
      Disconnect();
    } else if (!Take(ByteView(received_).Sub(0, static_cast<size_t>(count)))) {
      Log("co-processor: a message that is none; the host is disconnected");
      Disconnect();
    }
  }
}

bool MessageSocket::Take(ByteView datagram) {
  const size_t table_bytes = datagram.U32(12);
  if (datagram.size() > kMostBytes || datagram.size() < kHeaderBytes ||
      table_bytes > datagram.size() - kHeaderBytes) {
    return false;
  }
  const CoMessage message{datagram.U32(0), datagram.U32(4), datagram.U32(8),
                          datagram.Sub(kHeaderBytes, table_bytes),
                          datagram.From(kHeaderBytes + table_bytes)};
  if (message.kind != CoMessage::kFind && message.kind != CoMessage::kSend &&
      message.kind != CoMessage::kCall) {
    return false;
  }
  on_message_(message);
  return true;
}

void MessageSocket::Send(const CoMessage& message) {
  SendRaw(Writer()
              .U32(message.kind)
              .U32(message.serial)
              .U32(message.value)
              .U32(static_cast<uint32_t>(message.table.size()))
              .Append(message.table)
              .Append(message.payload)
              .bytes());
}

void MessageSocket::SendRaw(const Bytes& datagram) {
  if (!host_.ok()) return;
  if (queued_bytes_ + datagram.size() > kMostWaitingBytes) {
    Log("co-processor: the host does not read; a message is dropped");
    return;
  }
  queue_.push_back(datagram);
  queued_bytes_ += datagram.size();
  Flush();
}

// A host that has gone is noticed by the next Receive.
void MessageSocket::Flush() {
  while (!queue_.empty()) {
    const Bytes& datagram = queue_.front();
    const ssize_t count =
        send(host_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno == EAGAIN) break;
    queued_bytes_ -= datagram.size();
    queue_.pop_front();
  }
  loop_.Change(host_.get(), queue_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

}  // namespace zvk
