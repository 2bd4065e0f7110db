#include "sim/handset/coex_device.h"

#include <sys/epoll.h>

#include <algorithm>

#include "sim/base/log.h"

namespace zvk {
namespace {

constexpr uint8_t kAcknowledgement[] = {0x02, 0x02, 0x04, 0x81};

}  // namespace

CoexDevice::CoexDevice(EventLoop& loop, const std::string& link,
                       std::function<void(const std::string& text)> note)
    : loop_(loop), link_(link), note_(std::move(note)) {
  Open();
}

void CoexDevice::Open() {
  pty_ = std::make_unique<Pty>(link_);
  loop_.Watch(pty_->fd(), EPOLLIN, [this](uint32_t) { Drain(); });
}

void CoexDevice::HangUp() {
  note_("wbrc hung up");
  loop_.Unwatch(pty_->fd());
  pty_.reset();  // first: its destructor removes the link
  written_.clear();
  Open();
}

void CoexDevice::Notify(uint8_t event) {
  Send(Writer{0x01, 0x01, 0x01, event});  // class, length, an event, which
}

void CoexDevice::Send(ByteView message) {
  note_("wbrc sends " + Hex(message));
  pty_->Write(message);
}

void CoexDevice::Drain() {
  uint8_t read[64];
  while (const size_t count = pty_->Read(read, sizeof(read))) {
    written_.insert(written_.end(), read, read + count);
  }
  while (written_.size() >= sizeof(kAcknowledgement)) {
    const ByteView message = ByteView(written_).Sub(0, sizeof(kAcknowledgement));
    if (std::equal(message.begin(), message.end(), kAcknowledgement)) {
      ++acknowledged_;
      note_("wbrc acknowledged");
    } else {
      Log("wbrc: unknown message %s", Hex(message).c_str());
    }
    written_.erase(written_.begin(), written_.begin() + sizeof(kAcknowledgement));
  }
}

}  // namespace zvk
