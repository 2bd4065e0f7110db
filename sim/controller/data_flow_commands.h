#pragma once

#include "sim/controller/command_group.h"
#include "sim/controller/data_flow.h"

namespace zvk {

// The commands by which a host controls the flow of data towards itself.
class DataFlowCommands : public CommandGroup {
 public:
  DataFlowCommands(Context& context, DataFlow& flow) : CommandGroup(context), flow_(flow) {}
  void Register(CommandTable* table) override;
  void Reset() override { flow_.Reset(); }

 private:
  DataFlow& flow_;
};

}  // namespace zvk
