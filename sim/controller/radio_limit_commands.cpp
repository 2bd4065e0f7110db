#include "sim/controller/radio_limit_commands.h"

#include <algorithm>

namespace zvk {
namespace {

constexpr uint16_t kSetChannelsOpcode = 0x0C3F;
constexpr uint16_t kSetCapsOpcode = 0xFE69;

constexpr size_t kMapBytes = 10;
constexpr size_t kChannels = 79;
// Bluetooth Core 5.3, Vol 2, Part B, 2.3.1.
constexpr size_t kFewestChannels = 20;

constexpr size_t kCaps = 12;
constexpr uint8_t kWholeSteps = 1;
constexpr uint8_t kQuarterSteps = 5;
constexpr uint8_t kHighestWhole = 20;
constexpr uint8_t kHighestQuarters = 80;

}  // namespace

void RadioLimitCommands::Reset() {
  channel_map_.assign(kMapBytes, 0xFF);
  cap_format_ = 0;
  caps_.clear();
}

void RadioLimitCommands::Register(CommandTable* table) {
  table->Complete(kSetChannelsOpcode, kMapBytes, [this](ByteView p) { return SetChannels(p); });
  table->Complete(kSetCapsOpcode, 1 + kCaps, [this](ByteView p) { return SetCaps(p); });
}

Writer RadioLimitCommands::SetChannels(ByteView params) {
  size_t channels = 0;
  for (size_t channel = 0; channel < kChannels; ++channel) {
    channels += (params[channel / 8] >> (channel % 8)) & 1u;
  }
  if (params.size() != kMapBytes || channels < kFewestChannels) {
    return {status::kInvalidParameters};
  }
  channel_map_ = params.Copy();
  return {status::kSuccess};
}

Writer RadioLimitCommands::SetCaps(ByteView params) {
  const uint8_t format = params[0];
  const ByteView caps = params.From(1);
  const uint8_t highest = format == kQuarterSteps ? kHighestQuarters : kHighestWhole;
  if ((format != kWholeSteps && format != kQuarterSteps) || caps.size() != kCaps ||
      *std::max_element(caps.begin(), caps.end()) > highest) {
    return {status::kInvalidParameters};
  }
  cap_format_ = format;
  caps_ = caps.Copy();
  return {status::kSuccess};
}

}  // namespace zvk
