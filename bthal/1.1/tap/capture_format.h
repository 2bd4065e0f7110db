// The file formats of captures.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace android::hardware::bluetooth::tap {

// One packet as a capture shows it.
struct CapturedPacket {
  uint8_t type = 0;  // H4 type byte
  bool from_controller = false;
  int64_t time_ns = 0;       // since 1970
  uint64_t lost_before = 0;  // packets missing right before it
  const uint8_t* data = nullptr;
  size_t size = 0;
};

// Turns packets and notes into the records of a file. A record is never cut short. A note stands
// before the packets that come after it; "btsnoop" has no place for notes. Used on one thread.
class CaptureFormat {
 public:
  // Takes one whole record, or the head of the file. The bytes live until it returns.
  using Record = std::function<void(const std::vector<uint8_t>& bytes)>;

  // "pcapng" (link type 201), "btsnoop" (1002), "monitor" (btsnoop with 2001); null for others.
  static std::unique_ptr<CaptureFormat> Make(std::string_view name, Record record);

  virtual ~CaptureFormat() = default;
  // What the file begins with.
  virtual void Begin(int64_t time_ns) = 0;
  virtual void AddPacket(const CapturedPacket& packet) = 0;
  // text: one line.
  virtual void AddNote(int64_t time_ns, const std::string& text) = 0;

 protected:
  explicit CaptureFormat(Record record) : record_(std::move(record)) {}

  const Record record_;
};

// "12 packets are missing here"
std::string LossText(uint64_t lost);

}  // namespace android::hardware::bluetooth::tap
