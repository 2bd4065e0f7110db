// What the records of a capture hold.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/capture/record_splitter.h"
#include "tools/hci/packet.h"

namespace bthalctl {

// Everything at most once and in this order: notes, a gap, a packet.
struct RecordContent {
  int64_t time_ns = 0;  // since 1970
  std::vector<std::string> notes;
  uint64_t lost = 0;  // packets missing right before the packet
  std::optional<Packet> packet;
  bool from_controller = false;
};

// Reads the records of one capture, which it needs all and in their order: the heads say what the
// others are. Throws Failure at a capture of something other than HCI packets.
class RecordReader {
 public:
  RecordContent Read(const CaptureRecord& record);

 private:
  void ReadHead(wire::ByteView bytes);
  RecordContent ReadPcapng(const CaptureRecord& record) const;
  RecordContent ReadBtsnoop(const CaptureRecord& record) const;

  enum class Format { kUnknown, kPcapng, kBtsnoop, kMonitor };
  Format format_ = Format::kUnknown;
  std::vector<uint64_t> units_per_second_;  // pcapng: of each interface's times
};

}  // namespace bthalctl
