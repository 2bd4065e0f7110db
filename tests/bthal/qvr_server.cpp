#include "bthal/qvr_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "support/unix_socket.h"
#include "support/wait.h"

namespace test {
namespace {

using android::base::unique_fd;

constexpr size_t kMaxDatagram = 256 * 1024;
constexpr size_t kHeaderBytes = 16;

uint32_t Le16(const Bytes& bytes, size_t at) {
  return bytes.at(at) | static_cast<uint32_t>(bytes.at(at + 1)) << 8;
}
uint32_t Le32(const Bytes& bytes, size_t at) { return Le16(bytes, at) | Le16(bytes, at + 2) << 16; }

void Append(Bytes* bytes, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8)
    bytes->push_back(static_cast<uint8_t>(value >> shift));
}

// A 32-bit field of a FlatBuffers table; 0 when it is absent. Throws outside the bytes.
uint32_t Field(const Bytes& bytes, size_t index) {
  const size_t table = Le32(bytes, 0);
  const size_t vtable = table - static_cast<size_t>(static_cast<int32_t>(Le32(bytes, table)));
  const size_t entry = 4 + 2 * index;
  if (entry + 2 > Le16(bytes, vtable)) return 0;
  const size_t offset = Le16(bytes, vtable + entry);
  return offset == 0 ? 0 : Le32(bytes, table + offset);
}

unique_fd Listener(const std::string& root) {
  std::filesystem::create_directories(root + "/run/qvr");
  const std::string path = root + "/run/qvr/transport";
  std::filesystem::remove(path);
  return unique_fd(ListenUnix(path, SOCK_SEQPACKET));
}

}  // namespace

QvrServer::QvrServer(const std::string& root)
    : listener_(Listener(root)), stop_(eventfd(0, EFD_CLOEXEC)) {
  thread_ = std::thread([this] { Run(); });
}

QvrServer::~QvrServer() {
  const uint64_t one = 1;
  if (write(stop_.get(), &one, sizeof one) != sizeof one) abort();
  thread_.join();
}

void QvrServer::SetScript(Script script) {
  const std::lock_guard<std::mutex> guard(lock_);
  script_ = std::move(script);
}

std::vector<QvrRequest> QvrServer::Requests() {
  const std::lock_guard<std::mutex> guard(lock_);
  return requests_;
}

std::vector<QvrRequest> QvrServer::WaitForRequests(size_t count) {
  WaitFor([&] {
    const std::lock_guard<std::mutex> guard(lock_);
    return requests_.size() >= count;
  });
  return Requests();
}

Bytes QvrServer::Datagram(uint32_t kind, uint32_t serial, uint32_t value, const Bytes& table,
                          const Bytes& payload) {
  Bytes datagram;
  for (uint32_t number : {kind, serial, value, static_cast<uint32_t>(table.size())}) {
    Append(&datagram, number);
  }
  return Concat(Concat(std::move(datagram), table), payload);
}

void QvrServer::Answer(const QvrRequest& request, uint32_t error) {
  SendDatagram(Datagram(request.kind + 1, request.serial, error, {}, {}));
}

void QvrServer::SendMessage(const Bytes& table, uint32_t type) {
  SendDatagram(Datagram(kQvrMessage, 0, type, table, {}));
}

void QvrServer::SendDatagram(const Bytes& datagram) {
  const std::lock_guard<std::mutex> guard(lock_);
  send(client_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
}

void QvrServer::Disconnect() {
  const std::lock_guard<std::mutex> guard(lock_);
  shutdown(client_.get(), SHUT_RDWR);
}

bool QvrServer::WaitForConnection(bool connected) {
  return WaitFor([&] {
    const std::lock_guard<std::mutex> guard(lock_);
    return (client_.get() >= 0) == connected;
  });
}

void QvrServer::Run() {
  Bytes buffer(kMaxDatagram);
  for (;;) {
    const int client = client_.get();
    pollfd ready[] = {{stop_.get(), POLLIN, 0},
                      {client < 0 ? listener_.get() : -1, POLLIN, 0},
                      {client, POLLIN, 0}};
    if (poll(ready, 3, -1) < 0) continue;
    if (ready[0].revents != 0) return;
    if (ready[1].revents != 0) {
      unique_fd accepted(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      const int size = kMaxDatagram;
      setsockopt(accepted.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
      const std::lock_guard<std::mutex> guard(lock_);
      client_ = std::move(accepted);
    }
    if (ready[2].revents != 0) {
      const ssize_t count = recv(client, buffer.data(), buffer.size(), 0);
      if (count <= 0) {
        const std::lock_guard<std::mutex> guard(lock_);
        client_.reset();
      } else {
        Serve({buffer.begin(), buffer.begin() + count});
      }
    }
  }
}

void QvrServer::Serve(const Bytes& datagram) {
  const uint32_t kind = Le32(datagram, 0), serial = Le32(datagram, 4);
  const auto table = datagram.begin() + kHeaderBytes;
  const auto payload = table + Le32(datagram, 12);
  if (kind == kQvrFind) {
    Bytes number;
    Append(&number, kServerId);
    SendDatagram(Datagram(kQvrFound, serial, 0, {}, number));
    return;
  }
  const Bytes fields(table, payload);
  const QvrRequest request{kind, serial, Field(fields, 0), Field(fields, 1),
                           Bytes(payload, datagram.end())};
  std::unique_lock<std::mutex> guard(lock_);
  requests_.push_back(request);
  const Script script = script_;
  guard.unlock();
  const std::optional<uint32_t> error = script ? script(request) : 0;
  if (error) Answer(request, *error);
}

Bytes QvrEvent(uint32_t kind, const Bytes& packet) {
  static const Bytes kHead = ParseHex("0C 00 00 00 08 00 0C 00 04 00 08 00 08 00 00 00");
  Bytes table = kHead;
  Append(&table, kind);
  Append(&table, 4);
  Append(&table, static_cast<uint32_t>(packet.size()));
  return Concat(std::move(table), packet);
}

}  // namespace test
