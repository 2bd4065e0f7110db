#pragma once

#include "sim/base/bytes.h"
#include "sim/controller/command_table.h"

namespace zvk {

// The 64 bytes of Read Local Supported Commands: a bit for each command in table that has one
// (Bluetooth Core 5.3, Vol 4, Part E, 6.27).
Bytes SupportedCommands(const CommandTable& table);

}  // namespace zvk
