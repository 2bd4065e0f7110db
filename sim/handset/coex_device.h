#pragma once

#include <functional>
#include <memory>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/handset/pty.h"

namespace zvk {

// /dev/wbrc, through which the WLAN driver announces a reset of the whole chip.
class CoexDevice {
 public:
  // note is called with a line of text for each message in either direction.
  CoexDevice(EventLoop& loop, const std::string& link,
             std::function<void(const std::string& text)> note);
  ~CoexDevice() { loop_.Unwatch(pty_->fd()); }

  // 0x42 is a reset notice, 0x43 one that must be acknowledged.
  void Notify(uint8_t event);
  // Sends a message of any content.
  void Send(ByteView message);
  // The host's descriptor is hung up; the link leads to a fresh device.
  void HangUp();
  uint64_t acknowledged() const { return acknowledged_; }

 private:
  void Open();
  void Drain();

  EventLoop& loop_;
  const std::string link_;
  const std::function<void(const std::string&)> note_;
  std::unique_ptr<Pty> pty_;
  Bytes written_;
  uint64_t acknowledged_ = 0;
};

}  // namespace zvk
