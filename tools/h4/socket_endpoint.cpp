#include <android-base/parseint.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tools/base/failure.h"
#include "tools/base/unix_socket.h"
#include "tools/h4/endpoint.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;

unique_fd AcceptFrom(int listener) {
  return unique_fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

class UnixEndpoint : public Endpoint {
 public:
  explicit UnixEndpoint(const std::string& path)
      : path_(path), listener_(ListenUnix(path, SOCK_STREAM)) {}
  ~UnixEndpoint() override { unlink(path_.c_str()); }
  int fd() const override { return listener_.get(); }
  unique_fd Accept() override { return AcceptFrom(listener_.get()); }
  std::string Name() const override { return "unix:" + path_; }

 private:
  const std::string path_;
  const unique_fd listener_;
};

class TcpEndpoint : public Endpoint {
 public:
  TcpEndpoint(unique_fd listener, std::string name)
      : listener_(std::move(listener)), name_(std::move(name)) {}
  int fd() const override { return listener_.get(); }
  unique_fd Accept() override {
    unique_fd host = AcceptFrom(listener_.get());
    const int on = 1;
    if (host.ok()) setsockopt(host.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return host;
  }
  std::string Name() const override { return "tcp:" + name_; }

 private:
  const unique_fd listener_;
  const std::string name_;
};

}  // namespace

std::unique_ptr<Endpoint> MakeUnixEndpoint(const std::string& path) {
  return std::make_unique<UnixEndpoint>(path);
}

std::unique_ptr<Endpoint> MakeTcpEndpoint(const std::string& address) {
  const size_t colon = address.rfind(':');
  std::string host = colon == std::string::npos ? "127.0.0.1" : address.substr(0, colon);
  const std::string port = colon == std::string::npos ? address : address.substr(colon + 1);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  unsigned number = 0;
  if (!::android::base::ParseUint(port, &number, 65535u)) {
    throw Failure(ExitCode::kUsage, address + " is no HOST:PORT: a port is a number up to 65535");
  }
  const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (error != 0) {
    throw Failure(ExitCode::kUsage, address + " is no HOST:PORT: " + gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
  unique_fd listener(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  if (listener.ok()) setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_storage bound = {};
  socklen_t size = sizeof bound;
  if (!listener.ok() || bind(listener.get(), found->ai_addr, found->ai_addrlen) != 0 ||
      listen(listener.get(), 4) != 0 ||
      getsockname(listener.get(), reinterpret_cast<sockaddr*>(&bound), &size) != 0) {
    throw Failure(WithErrno("cannot listen at " + address));
  }
  const uint16_t actual =
      ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                        : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
  return std::make_unique<TcpEndpoint>(std::move(listener), host + ":" + std::to_string(actual));
}

}  // namespace bthalctl
