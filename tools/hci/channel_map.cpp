#include "tools/hci/channel_map.h"

#include <sstream>

#include "tools/base/failure.h"

namespace bthalctl {
namespace {

using Channels = std::bitset<ChannelMap::kChannels>;

[[noreturn]] void Refuse(const std::string& text) { throw Failure(ExitCode::kUsage, text); }

size_t ParseChannel(const std::string& text) {
  size_t channel = 0;
  if (text.empty() || text.size() > 2 ||
      text.find_first_not_of("0123456789") != std::string::npos ||
      (channel = std::stoul(text)) >= ChannelMap::kChannels) {
    Refuse("\"" + text + "\" is no channel: they are 0 to 78");
  }
  return channel;
}

Channels ParseRanges(const std::string& ranges) {
  Channels channels;
  std::istringstream parts(ranges);
  std::string part;
  if (ranges.empty() || ranges.back() == ',') Refuse("\"" + ranges + "\" names no channels");
  while (std::getline(parts, part, ',')) {
    const size_t dash = part.find('-');
    const size_t first = ParseChannel(part.substr(0, dash));
    const size_t last = dash == std::string::npos ? first : ParseChannel(part.substr(dash + 1));
    if (last < first) Refuse("\"" + part + "\" runs backwards");
    for (size_t channel = first; channel <= last; ++channel) channels.set(channel);
  }
  return channels;
}

}  // namespace

ChannelMap ChannelMap::FromHex(const std::string& hex) {
  const Bytes bytes = ParseHex(hex);
  if (bytes.size() != 10) {
    Refuse("a channel map has 10 bytes, not " + std::to_string(bytes.size()));
  }
  ChannelMap map;
  for (size_t channel = 0; channel < kChannels; ++channel) {
    map.used_.set(channel, (bytes[channel / 8] >> (channel % 8) & 1) != 0);
  }
  map.reserved_bit_ = (bytes[9] & 0x80) != 0;
  return map;
}

void ChannelMap::Avoid(const std::string& ranges) { used_ &= ~ParseRanges(ranges); }
void ChannelMap::UseOnly(const std::string& ranges) { used_ &= ParseRanges(ranges); }

void ChannelMap::AvoidWlan(int channel) {
  if (channel < 1 || channel > 14) Refuse("a WLAN channel is 1 to 14");
  const int centre = (channel == 14 ? 2484 : 2407 + 5 * channel) - 2402;
  for (int avoided = centre - 11; avoided <= centre + 11; ++avoided) {
    if (avoided >= 0 && avoided < static_cast<int>(kChannels)) {
      used_.reset(static_cast<size_t>(avoided));
    }
  }
}

std::string ChannelMap::Avoided() const {
  std::string text;
  for (size_t channel = 0; channel < kChannels; ++channel) {
    if (used_[channel]) continue;
    size_t last = channel;
    while (last + 1 < kChannels && !used_[last + 1]) ++last;
    if (!text.empty()) text += ',';
    text += std::to_string(channel);
    if (last > channel) text += "-" + std::to_string(last);
    channel = last;
  }
  return text;
}

Bytes ChannelMap::bytes() const {
  Bytes bytes(10);
  for (size_t channel = 0; channel < kChannels; ++channel) {
    if (used_[channel]) bytes[channel / 8] |= static_cast<uint8_t>(1u << (channel % 8));
  }
  if (reserved_bit_) bytes[9] |= 0x80;
  return bytes;
}

}  // namespace bthalctl
