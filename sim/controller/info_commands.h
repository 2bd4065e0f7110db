#pragma once

#include <cstdint>

#include "sim/controller/command_group.h"

namespace zvk {

constexpr uint8_t kCore53 = 0x0C;
constexpr uint16_t kNoCompany = 0xFFFF;  // reserved for tests

// What the controller tells of itself: version, commands, features, buffers, address.
class InfoCommands : public CommandGroup {
 public:
  using CommandGroup::CommandGroup;
  // table is looked at again when the host asks for the supported commands.
  void Register(CommandTable* table) override;
};

}  // namespace zvk
