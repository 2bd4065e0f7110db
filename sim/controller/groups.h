// The groups of commands that the controller only registers and resets.
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

// Read the activity counters.
void RegisterActivityCommands(Context& context, CommandTable* table);
// Host flow control: the flow of data from the controller to the host.
void RegisterDataFlowCommands(DataFlow& flow, CommandTable* table);
// Information about the controller: version, commands, features, buffers, address. The
// supported commands are those that table has when the host asks.
void RegisterInfoCommands(Context& context, CommandTable* table);

}  // namespace zvk
