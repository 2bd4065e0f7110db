#include "tap/capture_format.h"

#include <algorithm>
#include <array>

#include "hci/packet.h"

namespace android::hardware::bluetooth::tap {
namespace {

// A record that is being built.
class RecordBytes {
 public:
  void Clear() { bytes_.clear(); }
  size_t size() const { return bytes_.size(); }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

  RecordBytes& Big(uint64_t value, size_t width) {
    for (size_t i = width; i > 0; --i) bytes_.push_back(static_cast<uint8_t>(value >> 8 * (i - 1)));
    return *this;
  }
  RecordBytes& Little(uint64_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) bytes_.push_back(static_cast<uint8_t>(value >> 8 * i));
    return *this;
  }
  RecordBytes& Append(const void* data, size_t size) {
    const auto* const bytes = static_cast<const uint8_t*>(data);
    bytes_.insert(bytes_.end(), bytes, bytes + size);
    return *this;
  }
  RecordBytes& Pad(size_t multiple) {
    while (bytes_.size() % multiple != 0) bytes_.push_back(0);
    return *this;
  }
  void SetLittle32(size_t at, size_t value) {
    for (size_t i = 0; i < 4; ++i) bytes_[at + i] = static_cast<uint8_t>(value >> 8 * i);
  }

 private:
  std::vector<uint8_t> bytes_;
};

// pcapng: a section header, one interface with times in nanoseconds, an enhanced packet block for
// each packet. Link type 201: a direction word (0: to the controller), then the packet with its
// type byte. Notes are comments of the packet that follows them.
class PcapngFormat : public CaptureFormat {
 public:
  explicit PcapngFormat(Record record) : CaptureFormat(std::move(record)) {}

  void Begin(int64_t /*time_ns*/) override {
    StartBlock(0x0A0D0D0A);
    bytes_.Little(0x1A2B3C4D, 4).Little(1, 2).Little(0, 2).Little(~uint64_t{0}, 8);
    Option(kUserApplication, "bthal");
    EndBlock();
    StartBlock(1);
    bytes_.Little(201, 2).Little(0, 2).Little(0, 4);  // link type, reserved, no limit of length
    Option(kInterfaceName, "bluetooth");
    constexpr char kNanoseconds = 9;
    Option(kTimeResolution, {&kNanoseconds, 1});
    EndBlock();
  }

  void AddPacket(const CapturedPacket& packet) override {
    if (packet.lost_before > 0) notes_.push_back(LossText(packet.lost_before));
    StartBlock(6);
    const auto time = static_cast<uint64_t>(packet.time_ns);
    bytes_.Little(0, 4).Little(time >> 32, 4).Little(time, 4);
    bytes_.Little(packet.size + 5, 4).Little(packet.size + 5, 4);
    bytes_.Big(packet.from_controller ? 1 : 0, 4).Little(packet.type, 1);
    bytes_.Append(packet.data, packet.size).Pad(4);
    for (const std::string& note : notes_) Option(kComment, note);
    notes_.clear();
    NumberOption(kPacketFlags, packet.from_controller ? 1 : 2, 4);
    if (packet.lost_before > 0) NumberOption(kDropCount, packet.lost_before, 8);
    EndBlock();
  }

  void AddNote(int64_t /*time_ns*/, const std::string& text) override {
    if (notes_.size() < kNotesKept) {
      notes_.push_back(text);
    } else {
      notes_.back() = "more lines, left out";
    }
  }

 private:
  enum : uint16_t {
    kEndOfOptions = 0,
    kComment = 1,
    kInterfaceName = 2,    // of an interface
    kPacketFlags = 2,      // of a packet
    kUserApplication = 4,  // of a section
    kDropCount = 4,        // of a packet
    kTimeResolution = 9,
  };
  static constexpr size_t kNotesKept = 64;

  void StartBlock(uint32_t type) {
    bytes_.Clear();
    bytes_.Little(type, 4).Little(0, 4);
  }
  void Option(uint16_t code, std::string_view value) {
    bytes_.Little(code, 2).Little(value.size(), 2).Append(value.data(), value.size()).Pad(4);
  }
  void NumberOption(uint16_t code, uint64_t value, size_t width) {
    bytes_.Little(code, 2).Little(width, 2).Little(value, width);
  }
  void EndBlock() {
    Option(kEndOfOptions, {});
    const size_t size = bytes_.size() + 4;
    bytes_.Little(size, 4);
    bytes_.SetLittle32(4, size);
    record_(bytes_.bytes());
  }

  RecordBytes bytes_;
  std::vector<std::string> notes_;  // for the next packet
};

// btsnoop: big-endian, times in microseconds since the year 0.
class BtsnoopFormat : public CaptureFormat {
 public:
  explicit BtsnoopFormat(Record record) : CaptureFormat(std::move(record)) {}

  void Begin(int64_t /*time_ns*/) override { Head(1002); }

  void AddPacket(const CapturedPacket& packet) override {
    drops_ += packet.lost_before;
    const bool is_data =
        packet.type != hci::HCI_PACKET_TYPE_COMMAND && packet.type != hci::HCI_PACKET_TYPE_EVENT;
    Start((packet.from_controller ? 1u : 0u) | (is_data ? 0u : 2u), packet.size + 1,
          packet.time_ns);
    bytes_.Big(packet.type, 1);
    End(packet.data, packet.size);
  }

  void AddNote(int64_t /*time_ns*/, const std::string& /*text*/) override {}

 protected:
  void Head(uint32_t data_link) {
    bytes_.Clear();
    bytes_.Append("btsnoop", 8).Big(1, 4).Big(data_link, 4);
    record_(bytes_.bytes());
  }
  void Start(uint32_t flags, size_t size, int64_t time_ns) {
    constexpr int64_t kYear1970 = 0x00DCDDB30F2F8000;
    bytes_.Clear();
    bytes_.Big(size, 4).Big(size, 4).Big(flags, 4).Big(std::min<uint64_t>(drops_, UINT32_MAX), 4);
    bytes_.Big(static_cast<uint64_t>(time_ns / 1000 + kYear1970), 8);
  }
  void End(const void* data, size_t size) {
    bytes_.Append(data, size);
    record_(bytes_.bytes());
  }

  RecordBytes bytes_;
  uint64_t drops_ = 0;  // so far
};

// The format of the Linux kernel's monitor socket: an opcode in place of the type byte.
class MonitorFormat : public BtsnoopFormat {
 public:
  explicit MonitorFormat(Record record) : BtsnoopFormat(std::move(record)) {}

  void Begin(int64_t time_ns) override {
    Head(2001);
    // A primary controller on a UART, address not known, eight bytes of name.
    constexpr uint8_t kNewIndex[] = {0, 3, 0, 0, 0, 0, 0, 0, 'b', 't', 'h', 'a', 'l', 0, 0, 0};
    Start(kNewIndexOpcode, sizeof kNewIndex, time_ns);
    End(kNewIndex, sizeof kNewIndex);
    Start(kOpenIndexOpcode, 0, time_ns);
    End(nullptr, 0);
  }

  void AddPacket(const CapturedPacket& packet) override {
    if (packet.lost_before > 0) AddNote(packet.time_ns, LossText(packet.lost_before));
    drops_ += packet.lost_before;
    // By H4 type: to the controller, from it.
    constexpr uint8_t kOpcodes[][2] = {{0, 0}, {2, 2}, {4, 5}, {6, 7}, {3, 3}, {18, 19}};
    Start(kOpcodes[packet.type][packet.from_controller ? 1 : 0], packet.size, packet.time_ns);
    End(packet.data, packet.size);
  }

  void AddNote(int64_t time_ns, const std::string& text) override {
    Start(kNoIndex | kSystemNoteOpcode, text.size() + 1, time_ns);
    End(text.c_str(), text.size() + 1);
  }

 private:
  static constexpr uint32_t kNewIndexOpcode = 0;
  static constexpr uint32_t kOpenIndexOpcode = 8;
  static constexpr uint32_t kSystemNoteOpcode = 12;
  static constexpr uint32_t kNoIndex = 0xFFFF0000;
};

}  // namespace

std::unique_ptr<CaptureFormat> CaptureFormat::Make(std::string_view name, Record record) {
  if (name == "pcapng") return std::make_unique<PcapngFormat>(std::move(record));
  if (name == "btsnoop") return std::make_unique<BtsnoopFormat>(std::move(record));
  if (name == "monitor") return std::make_unique<MonitorFormat>(std::move(record));
  return nullptr;
}

std::string LossText(uint64_t lost) {
  return std::to_string(lost) + (lost == 1 ? " packet is" : " packets are") + " missing here";
}

}  // namespace android::hardware::bluetooth::tap
