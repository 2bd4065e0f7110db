#include "tools/wire/capture_packets.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

#include "tools/wire/capture_reader.h"
#include "tools/wire/codes.h"
#include "tools/wire/packet_text.h"
#include "tools/wire/text.h"

namespace wire {
namespace {

// Takes what is in a capture, and refuses what cannot be replayed.
class Packets {
 public:
  void Add(const Captured& item) {
    lost_ += item.lost;
    if (!item.packet) return;
    const std::string name = "packet " + std::to_string(packets_.size() + 1);
    const auto& [type, bytes] = *item.packet;
    if (item.cut_short) throw std::runtime_error(name + " is cut short in the capture");
    const PacketLayout& layout = *LayoutOf(static_cast<uint8_t>(type));
    if (bytes.empty() || PacketSize(layout, bytes) != bytes.size()) {
      throw std::runtime_error(
          name + " has another length than its header says: " + Hex(bytes, layout.header));
    }
    if (packets_.empty()) {
      first_ns_ = item.time_ns;
      controller_ = item.controller;
    }
    if (item.controller != controller_)
      throw std::runtime_error("it has packets of several controllers");
    last_ns_ = std::max(last_ns_, item.time_ns - first_ns_);
    packets_.push_back({{type, bytes}, item.from_controller, last_ns_, std::exchange(lost_, 0)});
  }
  std::vector<CapturedPacket> Done() { return std::move(packets_); }

 private:
  std::vector<CapturedPacket> packets_;
  uint64_t lost_ = 0;
  int64_t first_ns_ = 0;
  int64_t last_ns_ = 0;
  uint16_t controller_ = 0;
};

}  // namespace

std::vector<CapturedPacket> ParseCapture(ByteView file) {
  Packets packets;
  CaptureReader reader;
  reader.Put(file);
  while (const std::optional<Captured> item = reader.Next()) packets.Add(*item);
  reader.End();
  return packets.Done();
}

std::vector<CapturedPacket> ReadCapture(const std::string& path) {
  Packets packets;
  ForEachCaptured(path, [&](const Captured& item) {
    try {
      packets.Add(item);
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(path + ": " + error.what());
    }
    return true;
  });
  return packets.Done();
}

std::vector<CapturedPacket> ReadCaptureOfBringUp(const std::string& path) {
  std::vector<CapturedPacket> packets = ReadCapture(path);
  const auto first = std::find_if(packets.begin(), packets.end(), [](const CapturedPacket& packet) {
    return !packet.from_controller;
  });
  if (first == packets.end()) throw std::runtime_error(path + ": no packet of a host is in it");
  const auto& [type, bytes] = first->packet;
  if (type != PacketType::kCommand || ByteView(bytes).U16(0) != opcode::kReset) {
    constexpr size_t kShownBytes = 32;
    throw std::runtime_error(path + " begins in the middle, with " +
                             PacketText(type, bytes, kShownBytes) +
                             ": a bring-up begins with Reset (bthalctl capture --bring-up)");
  }
  return packets;
}

}  // namespace wire
