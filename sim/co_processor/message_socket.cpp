#include "sim/co_processor/message_socket.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sim/base/log.h"
#include "sim/base/unix_socket.h"

namespace zvk {
namespace {

constexpr size_t kMostBytes = 192 * 1024;  // of a datagram
constexpr size_t kHeaderBytes = 16;
constexpr Stream::Limits kHostLimits = {kMostBytes + 1, 1048576};

}  // namespace

MessageSocket::MessageSocket(EventLoop& loop, const std::string& path, OnMessage on_message)
    : loop_(loop),
      path_(path),
      on_message_(std::move(on_message)),
      host_(
          loop, kHostLimits,
          [this](ByteView datagram) {
            if (Take(datagram)) return;
            Log("co-processor: a datagram that is no message; the host is disconnected");
            Disconnect();
          },
          [this] { Disconnect(); }) {
  Open();
}

MessageSocket::~MessageSocket() { Close(); }

void MessageSocket::Open() {
  if (listener_.ok()) return;
  listener_ = ListenUnix(path_, S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP);
  loop_.Watch(listener_.get(), EPOLLIN, [this](uint32_t) { Accept(); });
}

// The socket is removed first: a host that is disconnected cannot connect again.
void MessageSocket::Close() {
  if (listener_.ok()) {
    unlink(path_.c_str());
    loop_.Unwatch(listener_.get());
    listener_.reset();
  }
  Disconnect();
}

void MessageSocket::Accept() {
  ::android::base::unique_fd host(
      accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!host.ok()) return;
  if (connected()) {
    Log("co-processor: a second host is turned away");
    return;
  }
  ++connections_;
  host_.Open(std::move(host));
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
  if (connected() && !host_.Send(datagram)) {
    Log("co-processor: the host does not read; a message is dropped");
  }
}

}  // namespace zvk
