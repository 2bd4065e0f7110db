#pragma once

#include "sim/base/event_loop.h"
#include "sim/handset/uart.h"
#include "sim/wire.h"

namespace zvk {

// Puts packets onto the serial line, and plays a scenario's faults there: split, merged, silent.
class LineFaults {
 public:
  LineFaults(EventLoop& loop, Uart& uart) : loop_(loop), uart_(uart) {}
  ~LineFaults() { Clear(); }

  // Returns false when the line is silent.
  bool Send(PacketType type, ByteView packet);

  // Nothing is sent any more; zero: until Clear.
  void BeSilent(EventLoop::Duration time);
  // Of each packet, the first bytes (with the type byte) are sent, and the rest after pause; with 0
  // bytes packets are not split.
  void SplitAfter(size_t bytes, EventLoop::Duration pause);
  // That many packets are collected and sent in one write, or fewer after patience.
  void Merge(size_t packets, EventLoop::Duration patience);
  // Power off: ends the silence and drops collected packets; splitting and merging stay on.
  void Clear();

 private:
  void Release();

  EventLoop& loop_;
  Uart& uart_;
  bool silent_ = false;
  EventLoop::TimerId silence_end_ = EventLoop::kNoTimer;
  size_t split_after_ = 0;
  EventLoop::Duration split_pause_{};
  size_t merge_ = 1;
  EventLoop::Duration patience_{};
  Bytes held_;
  size_t held_packets_ = 0;
  EventLoop::TimerId release_ = EventLoop::kNoTimer;
};

}  // namespace zvk
