#pragma once

#include <bitset>
#include <string>

#include "tools/hci/packet.h"

namespace bthalctl {

// Which of the 79 channels of classic Bluetooth may be used (Core 5.3, 4.E.7.3.46). Channel n is at
// 2402 + n MHz.
class ChannelMap {
 public:
  static constexpr size_t kChannels = 79;
  // A controller refuses fewer.
  static constexpr size_t kFewest = 20;

  // All may be used.
  ChannelMap() { used_.set(); }
  // From 10 bytes in hex, channel 0 the lowest bit of the first. Throws Failure(kUsage).
  static ChannelMap FromHex(const std::string& hex);

  // "0-10,40": throws Failure(kUsage) for a channel beyond 78 or a range that runs backwards.
  void Avoid(const std::string& ranges);
  void UseOnly(const std::string& ranges);
  // The 22 MHz around a WLAN channel in the 2.4 GHz band, 1 to 14.
  void AvoidWlan(int channel);

  size_t used() const { return used_.count(); }
  // "0-10,40" of what is avoided; empty for nothing.
  std::string Avoided() const;
  // 10 bytes. The bit that stands for no channel is 0, or as it was in the hex.
  Bytes bytes() const;

 private:
  std::bitset<kChannels> used_;
  bool reserved_bit_ = false;
};

}  // namespace bthalctl
