#pragma once

#include <android-base/unique_fd.h>

#include <functional>
#include <string>

#include "sim/base/stream.h"
#include "sim/wire.h"

namespace zvk {

// Another controller emulator that speaks H4 and does what is standard, in place of the built-in
// radio. Connected while the controller has power; every packet goes to it in a write of its own.
class RadioBridge {
 public:
  // packet lives for the call.
  using OnPacket = std::function<void(PacketType type, ByteView packet)>;
  // endpoint is unix:PATH or tcp:HOST:PORT. Throws std::invalid_argument for anything else.
  RadioBridge(EventLoop& loop, const std::string& endpoint, OnPacket on_packet);
  ~RadioBridge() { Disconnect(); }

  // Tries again until the emulator is there.
  void Connect();
  void Disconnect();
  // Kept until the emulator is connected.
  void Send(PacketType type, ByteView packet);

 private:
  int OpenSocket();
  void Retry();
  void OnConnected();
  void Complain(const std::string& why);

  EventLoop& loop_;
  const std::string endpoint_;
  H4Framer framer_;
  ::android::base::unique_fd socket_;  // while it is being connected
  Stream stream_;                      // once it is connected; keeps packets until then
  bool complained_ = false;
  EventLoop::TimerId retry_ = EventLoop::kNoTimer;
};

}  // namespace zvk
