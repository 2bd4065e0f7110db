#include "tools/link/holder.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/unix_socket.h"
#include "tools/link/exchange.h"
#include "tools/link/holder_protocol.h"

namespace bthalctl {
namespace {

constexpr size_t kMaxPending = 1024;

Bytes Message(uint8_t kind, const Bytes& content) {
  return Writer().U8(kind).Append(content).Done();
}

::android::base::unique_fd Listen(const std::string& path) {
  try {
    return ListenUnix(path, SOCK_SEQPACKET);
  } catch (const PathInUse&) {
    throw Failure(ExitCode::kBusy, "another program holds Bluetooth: a \"bthalctl up\"");
  }
}

}  // namespace

Holder::Holder(const std::string& socket_path)
    : path_(socket_path), listener_(Listen(socket_path)) {}

Holder::~Holder() { StopListening(); }

// The name goes first: no other holder replaces it while this socket listens.
void Holder::StopListening() {
  if (!listener_.ok()) return;
  unlink(path_.c_str());
  listener_.reset();
}

void Holder::Run(HciLink& link) {
  for (;;) {
    std::vector<pollfd> waits = {{listener_.get(), POLLIN, 0}, {link.fd(), POLLIN, 0}};
    for (const auto& client : clients_) {
      const int events = client->outbox.waiting() ? POLLIN | POLLOUT : POLLIN;
      waits.push_back({client->fd.get(), static_cast<short>(events), 0});
    }
    const size_t known = clients_.size();
    try {
      Wait(waits, kNever);
    } catch (const Interrupted&) {
      return;
    }
    while (std::optional<Packet> packet = link.Take()) Deliver(*packet);
    for (size_t i = 0; i < known; ++i) {
      const short ready = waits[i + 2].revents;
      Client& client = *clients_[i];
      if ((ready & POLLOUT) != 0) client.gone = client.outbox.Flush(client.fd.get()) != nullptr;
      if ((ready & ~POLLOUT) != 0) ReadFrom(client, link);
    }
    if (waits[0].revents != 0) Accept();
    for (const auto& client : clients_) {
      if (client->quitting && !client->gone) return;
    }
    clients_.erase(std::remove_if(clients_.begin(), clients_.end(),
                                  [](const auto& client) { return client->gone; }),
                   clients_.end());
  }
}

void Holder::Finish() {
  StopListening();
  for (const auto& client : clients_) {
    if (client->quitting) Queue(*client, Message(holder::kQuit, {}));
  }
}

void Holder::Accept() {
  const int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) return;
  clients_.push_back(std::make_unique<Client>());
  clients_.back()->id = next_id_++;
  clients_.back()->fd.reset(fd);
}

void Holder::ReadFrom(Client& client, HciLink& link) {
  Bytes message(holder::kMaxMessage + 1);
  // A few at a time, so that one busy client does not starve the others.
  for (int i = 0; i < 16 && !client.gone; ++i) {
    const ssize_t size = recv(client.fd.get(), message.data(), message.size(), MSG_TRUNC);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size <= 0 || static_cast<size_t>(size) > holder::kMaxMessage) {
      client.gone = true;
      return;
    }
    OnMessage(client, Bytes(message.begin(), message.begin() + size), link);
  }
}

void Holder::OnMessage(Client& client, const Bytes& message, HciLink& link) {
  switch (message.front()) {
    case holder::kStatus: {
      const std::string status = StatusJson();
      Queue(client, Message(holder::kStatus, Bytes(status.begin(), status.end())));
      return;
    }
    case holder::kQuit:
      client.quitting = true;
      return;
    case 1:
    case 2:
    case 3:
    case 5: {
      const Packet packet{static_cast<PacketType>(message.front()),
                          Bytes(message.begin() + 1, message.end())};
      if (packet.type == PacketType::kCommand && packet.bytes.size() >= 2) {
        if (pending_.size() == kMaxPending) pending_.pop_front();
        pending_.push_back({Reader(packet.bytes).U16(), client.id});
      }
      ++sent_[message.front()];
      link.Send(packet);
      return;
    }
    default:
      client.gone = true;  // no message of this protocol
  }
}

void Holder::Deliver(const Packet& packet) {
  const auto type = static_cast<uint8_t>(packet.type);
  ++received_[type];
  const Bytes message = Message(type, packet.bytes);
  if (const std::optional<CommandAnswer> answer = AnswerIn(packet)) {
    const auto asked = std::find_if(pending_.begin(), pending_.end(), [&](const Pending& pending) {
      return pending.opcode == answer->opcode;
    });
    if (asked != pending_.end()) {
      const uint64_t id = asked->client;
      pending_.erase(asked);
      for (const auto& client : clients_) {
        if (client->id == id) Queue(*client, message);
      }
      return;
    }
  }
  for (const auto& client : clients_) Queue(*client, message);
}

void Holder::Queue(Client& client, Bytes message) {
  if (client.gone) return;
  client.gone = client.outbox.Put(client.fd.get(), std::move(message)) != nullptr;
}

std::string Holder::StatusJson() const {
  using nlohmann::json;
  json counts = json::object();
  for (uint8_t type = 1; type <= 5; ++type) {
    counts[TypeName(static_cast<PacketType>(type))] = {{"to_controller", sent_[type]},
                                                       {"from_controller", received_[type]}};
  }
  const auto up = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start_);
  return json{
      {"pid", getpid()}, {"clients", clients_.size()}, {"seconds", up.count()}, {"packets", counts}}
      .dump();
}

}  // namespace bthalctl
