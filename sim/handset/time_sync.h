#pragma once

#include <cstdint>
#include <string>

#include "sim/handset/pty.h"

namespace zvk {

// /proc/bluetooth/timesync: one recorded time a read, nothing when none is left. Times that come
// while 128 are unread are lost.
class TimeSync {
 public:
  explicit TimeSync(const std::string& link) : pty_(link) { pty_.SetReadsImmediate(); }

  // The kernel saw the controller's line toggle at that time.
  void Record(uint64_t microseconds);

 private:
  Pty pty_;
};

}  // namespace zvk
