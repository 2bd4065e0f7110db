#include "sim/control/control_socket.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "sim/base/unix_socket.h"

namespace zvk {
namespace {

using ::android::base::unique_fd;

constexpr size_t kMostClients = 8;
constexpr size_t kMostText = 16384;  // bytes of a message
constexpr auto kPatience = std::chrono::seconds(5);
constexpr int kClientPatienceMs = 20000;
constexpr char kDone[] = "done";

}  // namespace

ControlSocket::ControlSocket(EventLoop& loop, const std::string& path, Take take)
    : loop_(loop),
      path_(path),
      take_(std::move(take)),
      listener_(ListenUnix(path, S_IRUSR | S_IWUSR)) {
  loop_.Watch(listener_.get(), EPOLLIN, [this](uint32_t) { Accept(); });
}

ControlSocket::~ControlSocket() {
  unlink(path_.c_str());
  loop_.Unwatch(listener_.get());
  while (!clients_.empty()) End(clients_.begin());
}

void ControlSocket::Accept() {
  unique_fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!fd.ok()) return;
  if (clients_.size() == kMostClients) End(clients_.begin());
  const Place client = clients_.insert(clients_.end(), Client{std::move(fd)});
  client->deadline = loop_.After(kPatience, [this, client] { End(client); });
  loop_.Watch(client->fd.get(), EPOLLIN, [this, client](uint32_t) { Answer(client); });
}

void ControlSocket::Answer(Place client) {
  std::array<char, kMostText> text;
  const ssize_t size = recv(client->fd.get(), text.data(), text.size(), MSG_TRUNC);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size > 0) {
    const auto length = static_cast<size_t>(size);
    std::string answer = length > text.size() ? "more than " + std::to_string(kMostText) + " bytes"
                                              : take_(std::string(text.data(), length));
    if (answer.empty()) answer = kDone;
    // A client that does not read has none.
    send(client->fd.get(), answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }
  End(client);
}

void ControlSocket::End(Place client) {
  loop_.Cancel(&client->deadline);
  loop_.Unwatch(client->fd.get());
  clients_.erase(client);
}

std::string SendControl(const std::string& root, const std::string& text) {
  if (text.size() > kMostText) return "more than " + std::to_string(kMostText) + " bytes";
  const unique_fd fd = ConnectUnix(root + "/" + kControlPath);
  if (!fd.ok()) {
    return "no zvksim takes steps on " + root + ": " + std::strerror(errno);
  }
  if (send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL) < 0) {
    return std::string("cannot send: ") + std::strerror(errno);
  }
  pollfd answered{fd.get(), POLLIN, 0};
  if (poll(&answered, 1, kClientPatienceMs) == 0) return "zvksim does not answer";
  std::array<char, kMostText + 256> answer;
  const ssize_t size = recv(fd.get(), answer.data(), answer.size(), 0);
  if (size <= 0) return "zvksim ended the connection";
  const std::string told(answer.data(), static_cast<size_t>(size));
  return told == kDone ? "" : told;
}

}  // namespace zvk
