#pragma once

#include <functional>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/handset/pty.h"

namespace zvk {

// /dev/wbrc, by which the WLAN driver tells of a reset of the whole chip.
class CoexDevice {
 public:
  CoexDevice(EventLoop& loop, const std::string& link);
  ~CoexDevice() { loop_.Unwatch(pty_.fd()); }

  // 0x42 is a reset notice, 0x43 one that wants an acknowledgement.
  void Notify(uint8_t event);
  uint64_t acknowledged() const { return acknowledged_; }

 private:
  void Drain();

  EventLoop& loop_;
  Pty pty_;
  Bytes written_;
  uint64_t acknowledged_ = 0;
};

}  // namespace zvk
