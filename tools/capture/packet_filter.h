// Which packets of a capture are wanted, for captures that are there already: the service filters
// its own.
#pragma once

#include <set>

#include "tools/capture/capture_source.h"
#include "tools/hci/packet.h"

namespace bthalctl {

// The rules of CaptureWords, as the service has them. Throws Failure(kUsage) at words that make no
// sense.
class PacketFilter {
 public:
  explicit PacketFilter(const CaptureWords& words);

  // Whether packet is wanted. Hides the payload of data, if that was asked for.
  bool Passes(Packet& packet) const;

 private:
  bool PassesEvent(ByteView event) const;

  std::set<unsigned> types_, opcodes_, events_, no_events_, handles_;
  bool no_advertising_;
  bool no_data_;
};

}  // namespace bthalctl
