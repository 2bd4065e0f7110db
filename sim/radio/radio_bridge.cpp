#include "sim/radio/radio_bridge.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "sim/base/log.h"

namespace zvk {
namespace {

constexpr auto kRetryPeriod = std::chrono::milliseconds(200);
constexpr Stream::Limits kEmulatorLimits = {65536, 1048576};
constexpr char kUnix[] = "unix:";
constexpr char kTcp[] = "tcp:";

bool Begins(const std::string& text, const char* start) { return text.rfind(start, 0) == 0; }

void CheckEndpoint(const std::string& endpoint) {
  if (Begins(endpoint, kUnix)) {
    const size_t size = endpoint.size() - std::strlen(kUnix);
    if (size > 0 && size < sizeof(sockaddr_un::sun_path)) return;
  } else if (Begins(endpoint, kTcp)) {
    const size_t colon = endpoint.rfind(':');
    if (colon > std::strlen(kTcp) && colon + 1 < endpoint.size()) return;
  }
  throw std::invalid_argument("\"" + endpoint + "\" is neither unix:PATH nor tcp:HOST:PORT");
}

}  // namespace

RadioBridge::RadioBridge(EventLoop& loop, const std::string& endpoint, OnPacket on_packet)
    : loop_(loop),
      endpoint_(endpoint),
      framer_(H4Framer::From::kController, std::move(on_packet),
              [this](uint8_t bad) {
                Log("%s sent 0x%02X, which is no packet type", endpoint_.c_str(), bad);
              }),
      stream_(
          loop, kEmulatorLimits, [this](ByteView bytes) { framer_.Push(bytes); },
          [this] {
            framer_.Reset();
            Complain("the emulator closed the connection");  // until the next power cycle
          }) {
  CheckEndpoint(endpoint);
}

int RadioBridge::OpenSocket() {
  constexpr int kType = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
  if (Begins(endpoint_, kUnix)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = endpoint_.substr(std::strlen(kUnix));
    std::copy(path.begin(), path.end(), address.sun_path);
    socket_.reset(socket(AF_UNIX, kType, 0));
    return connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0
               ? 0
               : errno;
  }
  const size_t colon = endpoint_.rfind(':');
  const size_t host = std::strlen(kTcp);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(endpoint_.substr(host, colon - host).c_str(), endpoint_.substr(colon + 1).c_str(),
                  &hints, &found) != 0) {
    return EHOSTUNREACH;
  }
  socket_.reset(socket(found->ai_family, kType, 0));
  const int one = 1;
  setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  const int error = connect(socket_.get(), found->ai_addr, found->ai_addrlen) == 0 ? 0 : errno;
  freeaddrinfo(found);
  return error;
}

void RadioBridge::Connect() {
  const int error = OpenSocket();
  if (error != 0 && error != EINPROGRESS) {
    Complain(std::strerror(error));
    Retry();
    return;
  }
  // Writable: the attempt has succeeded or failed.
  loop_.Watch(socket_.get(), EPOLLOUT, [this](uint32_t) { OnConnected(); });
}

void RadioBridge::Retry() {
  socket_.reset();
  retry_ = loop_.After(kRetryPeriod, [this] {
    retry_ = EventLoop::kNoTimer;
    Connect();
  });
}

void RadioBridge::Disconnect() {
  loop_.Cancel(&retry_);
  if (socket_.ok()) loop_.Unwatch(socket_.get());
  socket_.reset();
  stream_.Close();
  framer_.Reset();
  complained_ = false;
}

// Only the first failure of several is logged.
void RadioBridge::Complain(const std::string& why) {
  if (!complained_) Log("radio %s: %s", endpoint_.c_str(), why.c_str());
  complained_ = true;
}

void RadioBridge::OnConnected() {
  int error = 0;
  socklen_t size = sizeof(error);
  getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size);
  loop_.Unwatch(socket_.get());
  if (error != 0) {
    Complain(std::strerror(error));
    Retry();
    return;
  }
  complained_ = false;
  stream_.Open(std::move(socket_));
}

void RadioBridge::Send(PacketType type, ByteView packet) {
  if (!stream_.Send(Writer{static_cast<uint8_t>(type)}.Append(packet).Done())) {
    Complain("the emulator does not read; packets are dropped");
  }
}

}  // namespace zvk
