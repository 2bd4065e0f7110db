#pragma once

#include "sim/base/event_loop.h"
#include "sim/handset/uart.h"
#include "sim/wire.h"

namespace zvk {

// The way of packets onto the serial line, and what a scenario does to it: split, merged, silent.
class LineFaults {
 public:
  LineFaults(EventLoop& loop, Uart& uart) : loop_(loop), uart_(uart) {}
  ~LineFaults() { Clear(); }

  // Returns false when the line is silent.
  bool Send(PacketType type, ByteView packet);

  // Nothing is sent any more; zero: until Clear.
  void BeSilent(EventLoop::Duration time);
  // A packet's first bytes (its type byte counts) go out pause before the rest; 0 bytes: whole.
  void SplitAfter(size_t bytes, EventLoop::Duration pause);
  // Packets wait until there are so many, at most for patience, and go out in one write.
  void Merge(size_t packets, EventLoop::Duration patience);
  // Power off: the silence ends, what is held is dropped; splitting and merging stay.
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
