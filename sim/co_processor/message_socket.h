#pragma once

#include <deque>
#include <functional>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/base/unique_fd.h"
#include "sim/wire.h"

namespace zvk {

// One datagram between a host and the co-processor; platform/host/qvr/README.md has the protocol.
// The views live as long as the datagram.
struct CoMessage {
  enum Kind : uint32_t {
    kFind = 1,
    kFound = 2,
    kSend = 3,
    kCompleted = 4,
    kCall = 5,
    kResponse = 6,
    kMessage = 7,
  };
  uint32_t kind = 0;
  uint32_t serial = 0;
  uint32_t value = 0;
  ByteView table;
  ByteView payload;
};

// The co-processor's end of the socket: one host at a time, others are turned away. Nothing is ever
// waited for: what the host does not read is queued, up to a limit.
class MessageSocket {
 public:
  using OnMessage = std::function<void(const CoMessage& message)>;

  // Throws std::runtime_error with a one-line reason. path's folder exists.
  MessageSocket(EventLoop& loop, const std::string& path, OnMessage on_message);
  ~MessageSocket();

  // Does nothing while no host is connected.
  void Send(const CoMessage& message);
  // A datagram of any content.
  void SendRaw(const Bytes& datagram);
  void Disconnect();
  // Nobody can connect, as if there was no co-processor.
  void Close();
  void Open();

  bool connected() const { return host_.ok(); }
  uint64_t connections() const { return connections_; }

 private:
  void Accept();
  void OnReady(uint32_t events);
  void Receive();
  bool Take(ByteView datagram);
  void Flush();

  EventLoop& loop_;
  const std::string path_;
  const OnMessage on_message_;
  UniqueFd listener_;
  UniqueFd host_;
  uint64_t connections_ = 0;
  Bytes received_;
  std::deque<Bytes> queue_;
  size_t queued_bytes_ = 0;
};

}  // namespace zvk
