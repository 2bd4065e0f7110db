#pragma once

#include <deque>
#include <functional>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/base/unique_fd.h"
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
  void OnReady(uint32_t events);
  void OnConnected();
  void Read();
  void Lose(const std::string& why);
  void Flush();

  EventLoop& loop_;
  const std::string endpoint_;
  H4Framer framer_;
  UniqueFd socket_;
  bool connected_ = false;
  bool complained_ = false;
  std::deque<Bytes> queue_;  // packets that are still to go
  size_t sent_ = 0;          // bytes of the first that are gone
  EventLoop::TimerId retry_ = EventLoop::kNoTimer;
};

}  // namespace zvk
