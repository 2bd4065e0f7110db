#include "tools/wire/capture_packets.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>

#include "tools/wire/codes.h"
#include "tools/wire/packet_text.h"
#include "tools/wire/text.h"

namespace wire {
namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr size_t kMostBytes = size_t{1} << 30;  // of a file
constexpr int64_t kLatest = int64_t{1} << 62;   // ns

[[noreturn]] void Fail(const std::string& reason) { throw std::runtime_error(reason); }

std::string AtByte(size_t at) { return ", at byte " + std::to_string(at); }

uint64_t Big(ByteView bytes, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value = value << 8 | bytes[at + i];
  return value;
}

// Takes the packets of a capture, whatever its format.
class Packets {
 public:
  // captured: what the capture has of the packet, with its type byte. original: how long it was.
  void Add(bool from_controller, ByteView captured, size_t original, int64_t time_ns,
           uint64_t lost) {
    Add(from_controller, captured[0], captured.From(1), original == captured.size(), time_ns, lost);
  }
  void Add(bool from_controller, uint8_t type, ByteView bytes, bool complete, int64_t time_ns,
           uint64_t lost) {
    const std::string name = "packet " + std::to_string(packets_.size() + 1);
    if (!complete) Fail(name + " is cut short in the capture");
    const PacketLayout* const layout = LayoutOf(type);
    const auto foreign = from_controller ? PacketType::kCommand : PacketType::kEvent;
    if (layout == nullptr || static_cast<PacketType>(type) == foreign) {
      Fail(name + ", " + (from_controller ? "of the controller" : "of the host") +
           ", cannot be of type " + std::to_string(type));
    }
    if (PacketSize(*layout, bytes) != bytes.size()) {
      Fail(name + " has another length than its header says: " + Hex(bytes, layout->header));
    }
    if (packets_.empty()) first_ns_ = time_ns;
    last_ns_ = std::max(last_ns_, time_ns - first_ns_);
    packets_.push_back(
        {{static_cast<PacketType>(type), bytes.Copy()}, from_controller, last_ns_, lost});
  }
  std::vector<CapturedPacket> Done() { return std::move(packets_); }

 private:
  std::vector<CapturedPacket> packets_;
  int64_t first_ns_ = 0;
  int64_t last_ns_ = 0;
};

// In either byte order. A file may have several sections, each with its own interfaces.
class PcapngParser {
 public:
  explicit PcapngParser(Packets& packets) : packets_(packets) {}

  void Parse(ByteView file) {
    for (size_t at = 0; at < file.size();) at += TakeBlock(file.From(at), at);
  }

 private:
  struct Interface {
    uint64_t link_type;
    uint8_t resolution;  // of times: 10^-n s, or 2^-n s with the highest bit
  };
  enum : uint64_t { kInterface = 1, kOldPacket = 2, kSimplePacket = 3, kEnhancedPacket = 6 };
  enum : uint64_t { kEnd = 0, kDropCount = 4, kResolution = 9 };
  static constexpr size_t kBlockHead = 8;  // type and length; the length again at the end

  uint64_t Number(ByteView bytes, size_t at, size_t width) const {
    return big_endian_ ? Big(bytes, at, width) : bytes.Little(at, width);
  }

  size_t Size(ByteView bytes, size_t at, size_t width) const {
    return static_cast<size_t>(Number(bytes, at, width));
  }

  size_t TakeBlock(ByteView rest, size_t at) {
    if (rest.U32(0) == kSectionHeader) {
      constexpr uint32_t kByteOrder = 0x1A2B3C4D;
      big_endian_ = Big(rest, kBlockHead, 4) == kByteOrder;
      if (!big_endian_ && rest.U32(kBlockHead) != kByteOrder) Fail("no byte order" + AtByte(at));
      interfaces_.clear();
    }
    const size_t size = Size(rest, 4, 4);
    if (rest.size() < kBlockHead || size > rest.size()) {
      Fail("it ends inside a block" + AtByte(at));
    }
    if (size < kBlockHead + 4 || size % 4 != 0 || Number(rest, size - 4, 4) != size) {
      Fail("a block with a wrong length" + AtByte(at));
    }
    const ByteView body = rest.Sub(kBlockHead, size - kBlockHead - 4);
    const uint64_t type = Number(rest, 0, 4);
    if (type == kInterface) {
      const ByteView resolution = Option(body.From(8), kResolution);
      interfaces_.push_back({Number(body, 0, 2), resolution.empty() ? uint8_t{6} : resolution[0]});
    } else if (type == kEnhancedPacket) {
      TakePacket(body, at);
    } else if (type == kOldPacket || type == kSimplePacket) {
      Fail("a packet in a block of type " + std::to_string(type) + ", which is not read" +
           AtByte(at));
    }
    return size;
  }

  void TakePacket(ByteView body, size_t at) {
    constexpr size_t kPacketHead = 20, kDirectionWord = 4;
    constexpr uint64_t kH4WithDirection = 201;
    const size_t interface = Size(body, 0, 4);
    const size_t captured = Size(body, 12, 4);
    if (interface >= interfaces_.size() || body.size() < kPacketHead ||
        captured > body.size() - kPacketHead || captured <= kDirectionWord) {
      Fail("a damaged packet block" + AtByte(at));
    }
    const Interface& source = interfaces_[interface];
    if (source.link_type != kH4WithDirection) {
      Fail("link type " + std::to_string(source.link_type) +
           "; only 201, Bluetooth H4 with direction, is read");
    }
    const ByteView data = body.Sub(kPacketHead, captured);
    const ByteView drops = Option(body.From(kPacketHead + (captured + 3) / 4 * 4), kDropCount);
    packets_.Add((data[3] & 1) != 0, data.From(kDirectionWord), Size(body, 16, 4) - kDirectionWord,
                 Nanoseconds(Number(body, 4, 4) << 32 | Number(body, 8, 4), source.resolution),
                 Number(drops, 0, 8));
  }

  // Empty when it is not there.
  ByteView Option(ByteView options, uint64_t wanted) const {
    while (Number(options, 0, 2) != kEnd) {
      const size_t size = Size(options, 2, 2);
      if (Number(options, 0, 2) == wanted) return options.Sub(4, size);
      options = options.From(4 + (size + 3) / 4 * 4);
    }
    return {};
  }

  static int64_t Nanoseconds(uint64_t time, uint8_t resolution) {
    const int digits = resolution & 0x7F;
    const long double unit = resolution > 0x7F ? std::pow(2.0L, -digits) : std::pow(10.0L, -digits);
    const long double ns = static_cast<long double>(time) * unit * 1e9L;
    return ns < static_cast<long double>(kLatest) ? std::llround(ns) : kLatest;
  }

  Packets& packets_;
  bool big_endian_ = false;
  std::vector<Interface> interfaces_;
};

// Big-endian throughout.
class BtsnoopParser {
 public:
  explicit BtsnoopParser(Packets& packets) : packets_(packets) {}

  void Parse(ByteView file) {
    constexpr size_t kFileHead = 16, kRecordHead = 24;
    constexpr uint64_t kH4 = 1002, kMonitor = 2001;
    const uint64_t data_link = Big(file, 12, 4);
    if (file.size() < kFileHead) Fail("it ends inside its head");
    if (Big(file, 8, 4) != 1) Fail("btsnoop of another version than 1");
    if (data_link != kH4 && data_link != kMonitor) {
      Fail("data link " + std::to_string(data_link) + "; only 1002 and 2001 are read");
    }
    for (size_t at = kFileHead; at < file.size();) {
      const ByteView rest = file.From(at);
      const auto size = static_cast<size_t>(Big(rest, 4, 4));
      if (rest.size() < kRecordHead || size > rest.size() - kRecordHead) {
        Fail("it ends inside a record" + AtByte(at));
      }
      const Record record = {rest.Sub(kRecordHead, size), Big(rest, 0, 4), Big(rest, 8, 4),
                             Big(rest, 12, 4), Big(rest, 16, 8)};
      data_link == kH4 ? TakeH4(record) : TakeMonitor(record);
      at += kRecordHead + size;
    }
  }

 private:
  struct Record {
    ByteView data;
    uint64_t original_size, flags, drops, time_us;
  };

  void TakeH4(const Record& record) {
    packets_.Add((record.flags & 1) != 0, record.data, static_cast<size_t>(record.original_size),
                 Nanoseconds(record), NewDrops(record));
  }

  void TakeMonitor(const Record& record) {
    struct Row {
      uint8_t type;  // H4; 0: no packet
      bool from_controller;
    };
    constexpr Row kRows[] = {{0, false}, {0, false}, {1, false}, {4, true},  {2, false},
                             {2, true},  {3, false}, {3, true},  {0, false}, {0, false},
                             {0, false}, {0, false}, {0, false}, {0, false}, {0, false},
                             {0, false}, {0, false}, {0, false}, {5, false}, {5, true}};
    const uint64_t opcode = record.flags & 0xFFFF, controller = record.flags >> 16;
    if (opcode >= std::size(kRows) || kRows[opcode].type == 0) return;
    if (controller_ == kNone) controller_ = controller;
    if (controller != controller_) Fail("it has packets of several controllers");
    packets_.Add(kRows[opcode].from_controller, kRows[opcode].type, record.data,
                 record.original_size == record.data.size(), Nanoseconds(record), NewDrops(record));
  }

  // The records count from the beginning on.
  uint64_t NewDrops(const Record& record) {
    const uint64_t before = std::exchange(drops_, record.drops);
    return record.drops > before ? record.drops - before : 0;
  }
  // Of times in microseconds since the year 0.
  static int64_t Nanoseconds(const Record& record) {
    constexpr uint64_t kYear1970 = 0x00DCDDB30F2F8000;
    const uint64_t us = record.time_us > kYear1970 ? record.time_us - kYear1970 : 0;
    return us < kLatest / 1000 ? static_cast<int64_t>(us * 1000) : kLatest;
  }

  static constexpr uint64_t kNone = UINT64_MAX;
  Packets& packets_;
  uint64_t controller_ = kNone;
  uint64_t drops_ = 0;
};

}  // namespace

std::vector<CapturedPacket> ParseCapture(ByteView file) {
  Packets packets;
  if (file.U32(0) == kSectionHeader) {
    PcapngParser(packets).Parse(file);
  } else if (file.size() >= 8 && std::memcmp(file.data(), "btsnoop", 8) == 0) {
    BtsnoopParser(packets).Parse(file);
  } else {
    Fail("neither pcapng nor btsnoop");
  }
  return packets.Done();
}

std::vector<CapturedPacket> ReadCapture(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rbe"),
                                                             std::fclose);
  Bytes bytes;
  Bytes chunk(1 << 16);
  while (file != nullptr && bytes.size() <= kMostBytes) {
    const size_t count = std::fread(chunk.data(), 1, chunk.size(), file.get());
    if (count == 0) break;
    bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + static_cast<ptrdiff_t>(count));
  }
  if (file == nullptr || std::ferror(file.get()) != 0) Fail(path + ": " + std::strerror(errno));
  if (bytes.size() > kMostBytes) Fail(path + ": larger than 1 GiB");
  try {
    return ParseCapture(bytes);
  } catch (const std::runtime_error& error) {
    Fail(path + ": " + error.what());
  }
}

std::vector<CapturedPacket> ReadCaptureOfBringUp(const std::string& path) {
  std::vector<CapturedPacket> packets = ReadCapture(path);
  const auto first = std::find_if(packets.begin(), packets.end(), [](const CapturedPacket& packet) {
    return !packet.from_controller;
  });
  if (first == packets.end()) Fail(path + ": no packet of a host is in it");
  const auto& [type, bytes] = first->packet;
  if (type != PacketType::kCommand || ByteView(bytes).U16(0) != opcode::kReset) {
    constexpr size_t kShownBytes = 32;
    Fail(path + " begins in the middle, with " + PacketText(type, bytes, kShownBytes) +
         ": a bring-up begins with Reset (bthalctl capture --bring-up)");
  }
  return packets;
}

}  // namespace wire
