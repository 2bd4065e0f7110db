// What stands in a capture, whichever format it has.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "tools/capture/record_splitter.h"
#include "tools/wire/packet.h"

namespace bthalctl {

// A packet, or a line of text between the packets.
struct Captured {
  int64_t time_ns = 0;  // since 1970; of a note in pcapng: of the packet behind it
  std::optional<wire::Packet> packet;
  bool from_controller = false;
  std::string note;   // of what is no packet
  uint64_t lost = 0;  // packets that are missing right before it
};

// Takes a stream of bytes, cut at any place, and gives packets and notes in their order: of pcapng
// with Bluetooth HCI H4 (link types 187 and 201), of btsnoop with data links 1002 and 2001. Other
// records are left out. Throws Failure for what is no such capture or damaged.
class CaptureReader {
 public:
  void Put(wire::ByteView bytes);
  std::optional<Captured> Next();

 private:
  void Take(const CaptureRecord& record);

  RecordSplitter splitter_;
  std::deque<Captured> items_;
};

}  // namespace bthalctl
