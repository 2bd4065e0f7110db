#pragma once

#include <map>
#include <set>

#include "sim/controller/command_group.h"

namespace zvk {

// Reports of link-layer control events: the host registers, per address, the events to report. With
// each report the controller toggles its time-sync line. The kernel records the time of each
// toggle, and the report has the number of toggles since the last reset. The recorded time minus
// the report's offset is the time of the event on the kernel's clock; it differs from the event's
// Bluetooth time in the report by a constant.
class CccCommands : public CommandGroup {
 public:
  // Event numbers on the wire.
  static constexpr uint8_t kConnectInd = 0xFF;
  static constexpr uint8_t kPhyUpdateInd = 0x18;
  enum Direction : uint8_t { kTx = 0, kRx = 1 };

  using CommandGroup::CommandGroup;
  void Register(CommandTable* table) override;
  void Reset() override;

  // Reports an event on the link to address if the host has registered it; counter is the number of
  // the link's connection event.
  void OnLinkLayer(const Address& address, uint8_t id, Direction direction, uint16_t counter);
  // Toggles the line without a report.
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
