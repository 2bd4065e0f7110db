#pragma once

#include "sim/controller/command_group.h"
#include "sim/controller/le_state.h"

namespace zvk {

// LE settings, lists and answers about the controller itself.
class LeCommands : public CommandGroup {
 public:
  LeCommands(Context& context, LeState& le) : CommandGroup(context), le_(le) {}
  void Register(CommandTable* table) override;
  void Reset() override;

 private:
  void RegisterInformation(CommandTable* table);
  void RegisterLists(CommandTable* table);
  void RegisterSettings(CommandTable* table);

  LeState& le_;
  uint16_t suggested_octets_ = 27;
  uint16_t suggested_time_ = 328;  // µs
  std::set<std::pair<uint8_t, Address>> resolving_list_;
};

}  // namespace zvk
