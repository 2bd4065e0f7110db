#pragma once

#include "sim/controller/command_group.h"

namespace zvk {

// The vendor command that reads the activity counters.
class ActivityCommands : public CommandGroup {
 public:
  using CommandGroup::CommandGroup;
  void Register(CommandTable* table) override;
  void Reset() override { context_.activity.Restart(); }

 private:
  Writer Read();
};

}  // namespace zvk
