#include "tools/capture/packet_filter.h"

#include <android-base/parseint.h>

#include <algorithm>
#include <cctype>
#include <iterator>

#include "tools/base/failure.h"

namespace bthalctl {
namespace {

std::set<unsigned> Numbers(const char* option, const std::vector<std::string>& words,
                           unsigned most) {
  std::set<unsigned> numbers;
  for (const std::string& word : words) {
    unsigned number = 0;
    if (!::android::base::ParseUint(word, &number, most)) {
      throw Failure(ExitCode::kUsage, std::string(option) + ": " + word);
    }
    numbers.insert(number);
  }
  return numbers;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(c));
  return text;
}

std::set<unsigned> Types(const std::vector<std::string>& words) {
  std::set<unsigned> types;
  for (const std::string& word : words) {
    unsigned type = 1;
    while (type <= 5 && Lower(TypeName(static_cast<PacketType>(type))) != word) ++type;
    if (type > 5) throw Failure(ExitCode::kUsage, "--types: " + word);
    types.insert(type);
  }
  return types;
}

bool Allows(const std::set<unsigned>& set, unsigned number) {
  return set.empty() || set.count(number) > 0;
}

bool IsAdvertisingReport(ByteView event) {
  constexpr uint8_t kReports[] = {0x02, 0x0B, 0x0D, 0x0F};
  return event[0] == event::kLeMeta && event.size() > 2 &&
         std::count(std::begin(kReports), std::end(kReports), event[2]) > 0;
}

}  // namespace

PacketFilter::PacketFilter(const CaptureWords& words)
    : types_(Types(words.types)),
      opcodes_(Numbers("--opcodes", words.opcodes, 0xFFFF)),
      events_(Numbers("--events", words.events, 0xFF)),
      no_events_(Numbers("--no-events", words.no_events, 0xFF)),
      handles_(Numbers("--handles", words.handles, 0x0FFF)),
      no_advertising_(words.no_advertising),
      no_data_(words.no_data) {}

bool PacketFilter::PassesEvent(ByteView event) const {
  if (no_events_.count(event[0]) > 0) return false;
  if (!opcodes_.empty() && event[0] == event::kCommandComplete) {
    return opcodes_.count(event.U16(3)) > 0;
  }
  if (!opcodes_.empty() && event[0] == event::kCommandStatus) {
    return opcodes_.count(event.U16(4)) > 0;
  }
  if (no_advertising_ && IsAdvertisingReport(event)) return false;
  return Allows(events_, event[0]);
}

bool PacketFilter::Passes(Packet& packet) const {
  if (!Allows(types_, static_cast<unsigned>(packet.type))) return false;
  const ByteView bytes = packet.bytes;
  if (packet.type == PacketType::kCommand) return Allows(opcodes_, bytes.U16(0));
  if (packet.type == PacketType::kEvent) return PassesEvent(bytes);
  const wire::PacketLayout* const layout = wire::LayoutOf(static_cast<uint8_t>(packet.type));
  if (no_data_ && layout != nullptr) {
    const size_t header = std::min(layout->header, packet.bytes.size());
    std::fill(packet.bytes.begin() + static_cast<ptrdiff_t>(header), packet.bytes.end(),
              uint8_t{0});
  }
  return Allows(handles_, bytes.U16(0) & 0x0FFF);
}

}  // namespace bthalctl
