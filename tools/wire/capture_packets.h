// Captures of one controller's HCI traffic, whole packets only: what can be played again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/wire/packet.h"

namespace wire {

struct CapturedPacket {
  Packet packet;  // whole: its length field agrees with its size
  bool from_controller = false;
  int64_t time_ns = 0;       // since the first packet; never less than the one before
  uint64_t lost_before = 0;  // packets that the capture says are missing right before it
};

// The packets of a capture, in their order; everything else in it is left out. Nothing in it is
// trusted. Throws std::runtime_error with a one-line reason, also when it ends inside a record.
std::vector<CapturedPacket> ParseCapture(ByteView file);
// The same from a file; the reason begins with path.
std::vector<CapturedPacket> ReadCapture(const std::string& path);
// The same, and refuses a capture whose first packet of the host is not HCI Reset.
std::vector<CapturedPacket> ReadCaptureOfBringUp(const std::string& path);

}  // namespace wire
