#pragma once

#include "sim/controller/command_table.h"
#include "sim/wire.h"

namespace zvk {

// The 64 bytes of Read Local Supported Commands: a bit for each command in table that has one
// (Bluetooth Core 5.3, Vol 4, Part E, 6.27).
Bytes SupportedCommands(const CommandTable& table);

}  // namespace zvk
