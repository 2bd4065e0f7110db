#pragma once

#include <map>
#include <set>

#include "sim/controller/command_group.h"

namespace zvk {

// Reports of link-layer control events: the host registers addresses with the events that it wants
// of each. With each report the controller toggles its time-sync line, whose toggles the kernel
// records, and tells how many there were since the last reset. The kernel's time of a toggle minus
// the report's offset is the time of the event; that and the report's own time differ by a
// constant.
class CccCommands : public CommandGroup {
 public:
  // Numbers of the events on the wire.
  static constexpr uint8_t kConnectInd = 0xFF;
  static constexpr uint8_t kPhyUpdateInd = 0x18;
  enum Direction : uint8_t { kTx = 0, kRx = 1 };

  using CommandGroup::CommandGroup;
  void Register(CommandTable* table) override;
  void Reset() override;

  // The event has happened on the link to address; counter is the number of the link's connection
  // event. Nothing is told of what nobody has registered.
  void OnLinkLayer(const Address& address, uint8_t id, Direction direction, uint16_t counter);
  // The line toggles, and nothing is told of it.
  void Toggle(unsigned times);

  const std::map<Address, std::set<uint8_t>>& registered() const { return registered_; }

 private:
  Writer Run(ByteView params);
  Writer Add(const Address& address, ByteView events);
  EventLoop::Time ToggleOnce();

  std::map<Address, std::set<uint8_t>> registered_;
  uint8_t toggles_ = 0;
  const EventLoop::Time start_ = EventLoop::Clock::now();
};

}  // namespace zvk
