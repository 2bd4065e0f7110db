#pragma once

#include "sim/controller/command_group.h"

namespace zvk {

// What the host lets the radio use: the classic channels that are not to be avoided, and caps of
// the transmit power.
class RadioLimitCommands : public CommandGroup {
 public:
  explicit RadioLimitCommands(Context& context) : CommandGroup(context) {
    RadioLimitCommands::Reset();
  }
  void Register(CommandTable* table) override;
  void Reset() override;

  // 80 bits, bit n for channel n.
  const Bytes& channel_map() const { return channel_map_; }
  // 1 for caps in whole steps, 5 for quarters; 0 while there are none.
  uint8_t cap_format() const { return cap_format_; }
  // Twelve, or none: BR, EDR, BLE of chain 0, of chain 1, and of both with beamforming.
  const Bytes& caps() const { return caps_; }

 private:
  Writer SetChannels(ByteView params);
  Writer SetCaps(ByteView params);

  Bytes channel_map_;
  uint8_t cap_format_;
  Bytes caps_;
};

}  // namespace zvk
