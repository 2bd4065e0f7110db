#pragma once

#include <cstdint>
#include <string>

#include "sim/handset/pty.h"

namespace zvk {

// /proc/bluetooth/timesync: each read returns one recorded time, or nothing when none is left. At
// most 128 unread times are kept; later ones are lost.
class TimeSync {
 public:
  explicit TimeSync(const std::string& link) : pty_(link) { pty_.SetReadsImmediate(); }

  // Records the time at which the kernel saw the controller's line toggle.
  void Record(uint64_t microseconds);

 private:
  Pty pty_;
};

}  // namespace zvk
