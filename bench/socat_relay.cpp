#include "socat_relay.h"

#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "bt_messages_generated.h"
#include "tests/bthal/qvr_server.h"
#include "tests/support/unix_socket.h"
#include "tests/support/wait.h"

namespace bench {
namespace {

constexpr size_t kBufferBytes = 65536;
constexpr size_t kMessageHeader = 16;

// Hands over the whole packets at the beginning of stream and takes them out of it.
void TakeH4Events(Bytes* stream, Sink* sink) {
  size_t at = 0;
  while (stream->size() - at >= 3 && stream->size() - at >= 3u + (*stream)[at + 2]) {
    sink->OnEvent(&(*stream)[at + 1], 2u + (*stream)[at + 2]);
    at += 3u + (*stream)[at + 2];
  }
  stream->erase(stream->begin(), stream->begin() + static_cast<long>(at));
}

void TakeMessage(const Bytes& message, Sink* sink) {
  if (message.size() <= kMessageHeader || message[0] != test::kQvrMessage) return;
  const auto* packet =
      flatbuffers::GetRoot<chre::bt::Event>(message.data() + kMessageHeader)->packet();
  sink->OnEvent(packet->data(), packet->size());
}

Bytes CommandMessage() {
  flatbuffers::FlatBufferBuilder table;
  table.Finish(chre::bt::CreateRequest(table, 8, static_cast<int32_t>(test::QvrServer::kServerId)));
  const Bytes payload = {1, 1, kCommand[0], kCommand[1], kCommand[2]};
  return test::QvrServer::Datagram(
      test::kQvrSend, 1, 0, {table.GetBufferPointer(), table.GetBufferPointer() + table.GetSize()},
      payload);
}

}  // namespace

SocatRelay::SocatRelay(const std::string& address, Carries carries, const std::string& folder,
                       Scheduling scheduling, Sink* sink)
    : carries_(carries),
      path_(folder + "/socat"),
      sink_(sink),
      socat_(AtPriority(scheduling, {"socat", address,
                                     "UNIX-LISTEN:" + path_ +
                                         (carries == Carries::kMessages ? ",type=5" : "")})) {
  const int type = carries == Carries::kMessages ? SOCK_SEQPACKET : SOCK_STREAM;
  if (!test::WaitFor(
          [&] {
            socket_.reset(test::ConnectUnix(path_, type));
            return socket_.ok();
          },
          std::chrono::seconds(5))) {
    throw std::runtime_error("socat does not come up");
  }
  reader_ = std::thread([this] { Read(); });
}

SocatRelay::~SocatRelay() {
  shutdown(socket_.get(), SHUT_RDWR);
  reader_.join();
  unlink(path_.c_str());
}

void SocatRelay::SendCommand() {
  static const Bytes message = CommandMessage();
  static const Bytes packet = {0x01, kCommand[0], kCommand[1], kCommand[2]};
  const Bytes& bytes = carries_ == Carries::kMessages ? message : packet;
  if (write(socket_.get(), bytes.data(), bytes.size()) < 0)
    throw std::runtime_error("socat is gone");
}

void SocatRelay::Read() {
  Bytes pending;
  for (;;) {
    const size_t before = pending.size();
    pending.resize(before + kBufferBytes);
    const ssize_t n = read(socket_.get(), &pending[before], kBufferBytes);
    if (n <= 0) return;
    pending.resize(before + static_cast<size_t>(n));
    if (carries_ == Carries::kH4) {
      TakeH4Events(&pending, sink_);
    } else {
      TakeMessage(pending, sink_);
      pending.clear();
    }
  }
}

}  // namespace bench
