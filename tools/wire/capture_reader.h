// What stands in a capture, whichever format it has.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/wire/packet.h"
#include "tools/wire/record_splitter.h"

namespace wire {

// A packet, or a line of text between the packets.
struct Captured {
  int64_t time_ns = 0;  // since 1970; of a note in pcapng: of the packet behind it
  std::optional<Packet> packet;
  bool from_controller = false;
  bool cut_short = false;   // the capture has not all of the packet
  uint16_t controller = 0;  // its number, where the format has several
  std::string note;         // of what is no packet: plain characters
  uint64_t lost = 0;        // packets that are missing right before it; a note tells it besides
};

// Takes a stream of bytes, cut at any place, and gives packets and notes in their order: of pcapng
// with Bluetooth HCI H4 (link types 187 and 201), of btsnoop with data links 1002 and 2001. Other
// records are left out; a packet's own length field may be wrong. Throws std::runtime_error, with
// one line, for what is no such capture or damaged.
class CaptureReader {
 public:
  void Put(ByteView bytes) { splitter_.Put(bytes); }
  std::optional<Captured> Next();
  // Nothing more comes. Throws when that is in the middle of a record.
  void End() const { splitter_.End(); }

 private:
  // An interface of pcapng.
  struct Interface {
    uint16_t link_type = 0;
    uint64_t units_per_second = 1'000'000;
  };

  void Take(const CaptureRecord& record);
  void TakeHead(const CaptureRecord& record);
  void TakePcapng(const CaptureRecord& record);
  void TakeBtsnoop(const CaptureRecord& record);
  void AddPacket(Captured item, uint8_t type, ByteView bytes);
  void AddNote(int64_t time_ns, ByteView text);

  RecordSplitter splitter_;
  bool begun_ = false;      // the first head is there
  uint32_t data_link_ = 0;  // of btsnoop; 0: pcapng
  std::vector<Interface> interfaces_;
  uint64_t packets_ = 0;
  std::deque<Captured> items_;
};

// Calls take for what stands in a file, until it returns false. Throws std::runtime_error, also
// when the file ends within a record; the reason begins with path.
void ForEachCaptured(const std::string& path, const std::function<bool(const Captured&)>& take);

}  // namespace wire
