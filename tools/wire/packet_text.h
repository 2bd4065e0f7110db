// Packets in one line, with the names of their codes.
#pragma once

#include <string>

#include "tools/wire/packet.h"

namespace wire {

// "command", "acl", "sco", "event" or "iso".
const char* TypeWord(PacketType type);
// What a command or an event is called: "Reset", "Command Complete of Reset: Success". "0xFC99"
// where a code has no name, empty for data.
std::string PacketName(PacketType type, ByteView packet);
// "command 03 0c 00 (Reset)", of the bytes at most limit.
std::string PacketText(PacketType type, ByteView packet, size_t limit = SIZE_MAX);

}  // namespace wire
