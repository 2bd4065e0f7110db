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
constexpr size_t kMostQueuedPackets = 1000;  // packets
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
      framer_(H4Framer::From::kController, std::move(on_packet), [this](uint8_t bad) {
        Log("%s sent 0x%02X, no packet type", endpoint_.c_str(), bad);
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
    socket_ = UniqueFd(socket(AF_UNIX, kType, 0));
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
  socket_ = UniqueFd(socket(found->ai_family, kType, 0));
  const int one = 1;
  setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  const int error = connect(socket_.get(), found->ai_addr, found->ai_addrlen) == 0 ? 0 : errno;
  freeaddrinfo(found);
  return error;
}

void RadioBridge::Connect() {
  const int error = OpenSocket();
  if (error != 0 && error != EINPROGRESS) {
    Lose(std::strerror(error));
    Retry();
    return;
  }
  // Writable: connected, or that it failed is known.
  loop_.Watch(socket_.get(), EPOLLOUT, [this](uint32_t events) { OnReady(events); });
}

void RadioBridge::Retry() {
  retry_ = loop_.After(kRetryPeriod, [this] {
    retry_ = EventLoop::kNoTimer;
    Connect();
  });
}

void RadioBridge::Disconnect() {
  loop_.Cancel(&retry_);
  if (socket_.ok()) loop_.Unwatch(socket_.get());
  socket_.Reset();
  connected_ = false;
  complained_ = false;
  queue_.clear();
  sent_ = 0;
  framer_.Reset();
}

// The first failure is told; the tries after it are not.
void RadioBridge::Lose(const std::string& why) {
  if (!complained_) Log("radio %s: %s", endpoint_.c_str(), why.c_str());
  complained_ = true;
  if (socket_.ok()) loop_.Unwatch(socket_.get());
  socket_.Reset();
  connected_ = false;
  sent_ = 0;
  framer_.Reset();
}

void RadioBridge::OnReady(uint32_t events) {
  if (!connected_) {
    OnConnected();
    return;
  }
  if ((events & EPOLLOUT) != 0) Flush();
  if (connected_ && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) Read();
}

void RadioBridge::OnConnected() {
  int error = 0;
  socklen_t size = sizeof(error);
  getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size);
  if (error != 0) {
    Lose(std::strerror(error));
    Retry();
    return;
  }
  connected_ = true;
  complained_ = false;
  Flush();
}

void RadioBridge::Read() {
  uint8_t data[65536];
  const ssize_t count = recv(socket_.get(), data, sizeof(data), 0);
  if (count > 0) {
    framer_.Push({data, static_cast<size_t>(count)});
  } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
    Lose("the emulator closed the connection");  // until the controller's power is cycled
  }
}

void RadioBridge::Send(PacketType type, ByteView packet) {
  if (queue_.size() >= kMostQueuedPackets) {
    if (!complained_) Log("radio %s does not read; packets are dropped", endpoint_.c_str());
    complained_ = true;
    return;
  }
  queue_.push_back(Writer{static_cast<uint8_t>(type)}.Append(packet).bytes());
  if (connected_ && queue_.size() == 1) Flush();
}

void RadioBridge::Flush() {
  while (!queue_.empty()) {
    const Bytes& packet = queue_.front();
    const ssize_t count =
        send(socket_.get(), packet.data() + sent_, packet.size() - sent_, MSG_NOSIGNAL);
    if (count <= 0) break;
    sent_ += static_cast<size_t>(count);
    if (sent_ < packet.size()) continue;
    queue_.pop_front();
    sent_ = 0;
  }
  loop_.Change(socket_.get(), queue_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

}  // namespace zvk
