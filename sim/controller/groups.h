// The groups of commands that the rest of the controller has no other business with.
#pragma once

#include <functional>
#include <memory>

#include "sim/controller/command_group.h"
#include "sim/controller/data_flow.h"
#include "sim/controller/le_state.h"

namespace zvk {

std::unique_ptr<CommandGroup> MakeAdvertisingCommands(Context& context, LeState& le);
// reset is what HCI Reset does to the whole controller.
std::unique_ptr<CommandGroup> MakeBasebandCommands(Context& context, std::function<void()> reset);
std::unique_ptr<CommandGroup> MakeLeCommands(Context& context, LeState& le);
std::unique_ptr<CommandGroup> MakeScanCommands(Context& context, LeState& le);

// Reading the activity counters.
void RegisterActivityCommands(Context& context, CommandTable* table);
// The host's control of the data that flows to it.
void RegisterDataFlowCommands(DataFlow& flow, CommandTable* table);
// What the controller tells about itself: version, commands, features, buffers, address. The
// supported commands are those that table has when the host asks.
void RegisterInfoCommands(Context& context, CommandTable* table);

}  // namespace zvk
