#pragma once

#include "sim/controller/command_group.h"

namespace zvk {

// EWP logging: while it is on, a record goes out every interval, as ACL data on a reserved handle.
// A record is its number and the time since the controller's start in ms, each 32 bits, and then
// bytes that count up.
class EwpCommands : public CommandGroup {
 public:
  using CommandGroup::CommandGroup;
  ~EwpCommands() override { context_.loop.Cancel(&timer_); }
  void Register(CommandTable* table) override;
  void Reset() override;

  // ms; 0 while it is off.
  uint16_t interval() const { return interval_; }
  // A record of that many bytes, whether logging is on or not, as ACL or ISO data.
  void Record(PacketType type, size_t bytes);

 private:
  Writer Switch(ByteView params);
  void Next();

  uint16_t interval_ = 0;
  uint32_t records_ = 0;
  const EventLoop::Time start_ = EventLoop::Clock::now();
  EventLoop::TimerId timer_ = EventLoop::kNoTimer;
};

}  // namespace zvk
