#pragma once

#include <map>

#include "sim/controller/command_group.h"
#include "sim/controller/le_state.h"

namespace zvk {

// Advertising, legacy and extended: accepted and kept; nobody in the simulated air listens.
class AdvertisingCommands : public CommandGroup {
 public:
  AdvertisingCommands(Context& context, LeState& le) : CommandGroup(context), le_(le) {}
  ~AdvertisingCommands() override { AdvertisingCommands::Reset(); }
  void Register(CommandTable* table) override;
  void Reset() override;

 private:
  struct Set {
    bool enabled = false;
    EventLoop::TimerId end = EventLoop::kNoTimer;
  };

  void RegisterLegacy(CommandTable* table);
  void RegisterExtended(CommandTable* table);
  Writer SetParameters(ByteView params);
  Writer Enable(ByteView params);
  Writer Remove(uint8_t handle);
  void EndAfter(uint8_t handle, EventLoop::Duration duration);

  LeState& le_;
  std::map<uint8_t, Set> sets_;  // by advertising handle
};

}  // namespace zvk
