#pragma once

#include <functional>
#include <string>
#include <vector>

#include "sim/base/event_loop.h"
#include "sim/wire.h"
#include "tools/wire/capture_packets.h"

namespace zvk {

struct ReplayOptions {
  std::string file;     // a capture; empty: nothing is replayed
  bool timing = false;  // the controller's packets come no earlier than in the capture
};

// Plays the controller's side of a capture: what the host sends must be what the capture has, in
// its order, and each of its packets is followed by the controller's packets that follow it there.
// What the host does otherwise is told and ends the loop. Owned by the handset.
class Replay {
 public:
  // The packet lives for the call.
  using Send = std::function<void(PacketType type, ByteView packet)>;

  // Throws std::runtime_error with a one-line reason: no capture, or none that begins with a
  // bring-up.
  Replay(EventLoop& loop, const ReplayOptions& options, Send send);
  ~Replay() { loop_.Cancel(&timer_); }

  void PowerOn();
  // What the controller would still have sent is lost.
  void PowerOff();
  void OnHostPacket(PacketType type, ByteView packet);
  // A byte of the host is no packet type.
  void OnLostSync(uint8_t bad);
  // The whole capture was played. Else tells how far it came, if nothing was told before.
  bool Finish();

 private:
  bool done() const { return next_ == packets_.size(); }
  // The controller's packets up to the next one of the host, all of them or those that are due.
  void Play(bool all);
  void Advance();
  void Mismatch(const std::string& got);

  EventLoop& loop_;
  const std::string file_;
  const bool timing_;
  const Send send_;
  const std::vector<CapturedPacket> packets_;
  size_t next_ = 0;
  bool powered_ = false;
  bool failed_ = false;
  bool told_more_ = false;  // that the host goes on behind the end
  EventLoop::Time last_;    // when packet next_ - 1 passed
  EventLoop::TimerId timer_ = EventLoop::kNoTimer;
};

}  // namespace zvk
