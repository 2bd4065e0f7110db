// What stands in a capture, whichever format it has.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/capture/record_splitter.h"
#include "tools/wire/packet.h"

namespace bthalctl {

// A packet, or a line of text between the packets.
struct Captured {
  int64_t time_ns = 0;  // since 1970; of a note in pcapng: of the packet behind it
  std::optional<wire::Packet> packet;
  bool from_controller = false;
  std::string note;   // of what is no packet: plain characters
  uint64_t lost = 0;  // packets that are missing right before it; a note tells it besides
};

// Takes a stream of bytes, cut at any place, and gives packets and notes in their order: of pcapng
// with Bluetooth HCI H4 (link types 187 and 201), of btsnoop with data links 1002 and 2001. Other
// records are left out. Throws Failure for what is no such capture or damaged.
class CaptureReader {
 public:
  void Put(wire::ByteView bytes);
  std::optional<Captured> Next();
  // Whether the bytes so far end with a whole record.
  bool whole() const { return splitter_.empty(); }

 private:
  // An interface of pcapng.
  struct Interface {
    uint16_t link_type = 0;
    uint64_t units_per_second = 1'000'000;
  };

  void Take(const CaptureRecord& record);
  void TakeHead(wire::ByteView bytes);
  void TakePcapng(const CaptureRecord& record);
  void TakeBtsnoop(const CaptureRecord& record);
  void AddNote(int64_t time_ns, wire::ByteView text);

  RecordSplitter splitter_;
  bool begun_ = false;      // the first head is there
  uint64_t data_link_ = 0;  // of btsnoop; 0: pcapng
  std::vector<Interface> interfaces_;
  std::deque<Captured> items_;
};

// Calls take for what stands in a file, until it returns false. Throws Failure, also when the file
// ends within a record.
void ReadCapture(const std::string& path, const std::function<bool(const Captured&)>& take);

}  // namespace bthalctl
