#pragma once

#include <functional>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/handset/pty.h"

namespace zvk {

// A kernel file into which "1" and "0" are written.
class SwitchFile {
 public:
  SwitchFile(EventLoop& loop, const std::string& link,
             std::function<void(bool on, bool more)> on_write);
  ~SwitchFile() { loop_.Unwatch(pty_.fd()); }

  // Handles everything that has been written so far. more tells on_write whether another character
  // was read together with this one.
  void Drain();

 private:
  EventLoop& loop_;
  const std::string link_;
  const std::function<void(bool on, bool more)> on_write_;
  Pty pty_;
};

}  // namespace zvk
