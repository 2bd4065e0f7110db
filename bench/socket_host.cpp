#include "socket_host.h"

#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "bt_messages_generated.h"
#include "relay.h"
#include "tests/bthal/qvr_server.h"
#include "tests/support/unix_socket.h"
#include "tests/support/wait.h"
#include "tools/wire/h4_framer.h"

namespace bench {
namespace {

using wire::PacketType;

constexpr size_t kBufferBytes = 65536;
constexpr size_t kMessageHeader = 16;

Bytes CommandMessage() {
  flatbuffers::FlatBufferBuilder table;
  table.Finish(chre::bt::CreateRequest(table, 8, static_cast<int32_t>(test::QvrServer::kServerId)));
  const Bytes payload = {1, 1, kCommand[0], kCommand[1], kCommand[2]};
  return test::QvrServer::Datagram(
      test::kQvrSend, 1, 0, {table.GetBufferPointer(), table.GetBufferPointer() + table.GetSize()},
      payload);
}

}  // namespace

SocketHost::SocketHost(const std::string& path, Carries carries, Sink* sink)
    : carries_(carries), path_(path), sink_(sink) {
  const int type = carries == Carries::kMessages ? SOCK_SEQPACKET : SOCK_STREAM;
  const auto connect = [&] {
    socket_.reset(test::ConnectUnix(path_, type));
    return socket_.ok();
  };
  if (!test::WaitFor(connect, std::chrono::seconds(5))) {
    throw std::runtime_error("nobody listens at " + path);
  }
  reader_ = std::thread([this] {
    if (carries_ == Carries::kH4) {
      ReadPackets();
    } else {
      ReadMessages();
    }
  });
}

SocketHost::~SocketHost() {
  shutdown(socket_.get(), SHUT_RDWR);
  reader_.join();
  unlink(path_.c_str());
}

void SocketHost::SendCommand() {
  static const Bytes message = CommandMessage();
  static const Bytes packet = {0x01, kCommand[0], kCommand[1], kCommand[2]};
  Send(carries_ == Carries::kMessages ? message : packet);
}

void SocketHost::SendAcl(const Bytes& data) {
  Send(test::Concat({static_cast<uint8_t>(PacketType::kAcl)}, data));
}

void SocketHost::Send(const Bytes& bytes) {
  if (send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error("the relay is gone");
  }
}

void SocketHost::ReadPackets() {
  const auto take = [this](PacketType type, wire::ByteView packet) {
    if (type == PacketType::kEvent) sink_->OnEvent(packet.data(), packet.size());
    if (type == PacketType::kAcl) sink_->OnAcl(packet.size());
  };
  wire::H4Framer framer(wire::H4Framer::From::kController, take, [](uint8_t) {});
  Bytes buffer(kBufferBytes);
  for (;;) {
    const ssize_t n = read(socket_.get(), buffer.data(), buffer.size());
    if (n <= 0) return;
    framer.Push({buffer.data(), static_cast<size_t>(n)});
  }
}

void SocketHost::ReadMessages() {
  Bytes message(kBufferBytes);
  for (;;) {
    const ssize_t n = read(socket_.get(), message.data(), message.size());
    if (n <= 0) return;
    if (static_cast<size_t>(n) <= kMessageHeader || message[0] != test::kQvrMessage) continue;
    const auto* packet =
        flatbuffers::GetRoot<chre::bt::Event>(message.data() + kMessageHeader)->packet();
    sink_->OnEvent(packet->data(), packet->size());
  }
}

}  // namespace bench
