#pragma once

#include "sim/controller/command_group.h"
#include "sim/controller/data_flow.h"

namespace zvk {

// Local loopback (Bluetooth Core 5.3, Vol 4, Part E, 7.6.1 and 7.6.2): the controller makes one ACL
// and one synchronous connection, and returns commands as events and data as it is. ISO data is
// returned on any handle: the mode makes no connection for it.
class LoopbackCommands : public CommandGroup {
 public:
  LoopbackCommands(Context& context, DataFlow& flow) : CommandGroup(context), flow_(flow) {}
  void Register(CommandTable* table) override;
  void Reset() override { local_ = false; }

  bool local() const { return local_; }
  // True when the mode is on and the command is one of those that are returned.
  bool Takes(uint16_t opcode) const;
  void OnCommand(ByteView packet);
  void OnData(PacketType type, ByteView packet);

 private:
  Writer WriteMode(ByteView params);

  DataFlow& flow_;
  bool local_ = false;
};

}  // namespace zvk
