#pragma once

#include "sim/controller/command_table.h"
#include "sim/controller/context.h"

namespace zvk {

// Commands that belong together, with the state that they share. Built at the controller's start,
// destroyed when it loses power or starts another firmware.
class CommandGroup {
 public:
  explicit CommandGroup(Context& context) : context_(context) {}
  virtual ~CommandGroup() = default;
  CommandGroup(const CommandGroup&) = delete;
  CommandGroup& operator=(const CommandGroup&) = delete;

  virtual void Register(CommandTable* table) = 0;
  // HCI Reset.
  virtual void Reset() {}

 protected:
  Context& context_;
};

}  // namespace zvk
