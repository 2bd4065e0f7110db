#pragma once

#include <functional>
#include <string>

#include "sim/base/stream.h"
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

// The co-processor's end of the socket: one host at a time, others are turned away. What the host
// does not read is queued up to a limit; beyond it, messages are dropped.
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
  void Disconnect() { host_.Close(); }
  // While held, messages of the host wait where they are.
  void Hold(bool held) { host_.Hold(held); }
  // Removes the socket: no host can connect, as if there were no co-processor.
  void Close();
  void Open();

  bool connected() const { return host_.is_open(); }
  uint64_t connections() const { return connections_; }

 private:
  void Accept();
  bool Take(ByteView datagram);

  EventLoop& loop_;
  const std::string path_;
  const OnMessage on_message_;
  ::android::base::unique_fd listener_;
  Stream host_;
  uint64_t connections_ = 0;
};

}  // namespace zvk
