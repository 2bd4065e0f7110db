// Packets in words, one line per packet.
#pragma once

#include <string>

#include "tools/wire/packet.h"

namespace wire {

// "CMD", "ACL", "SCO", "EVT", "ISO".
const char* TypeName(PacketType type);

// Without the packet's direction and without a newline: "EVT Command Complete: Read BD_ADDR
// (0x1009): Success, 5A:56:4B:00:00:01". A packet whose length field disagrees with its size, or
// that ends before its fields do, is shown as such; what nothing is known about, as bytes.
std::string Describe(const Packet& packet);

}  // namespace wire
