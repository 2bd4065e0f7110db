#include "sim/handset/switch_file.h"

#include <sys/epoll.h>

#include "sim/base/log.h"

namespace zvk {

SwitchFile::SwitchFile(EventLoop& loop, const std::string& link,
                       std::function<void(bool on)> on_write)
    : loop_(loop), link_(link), on_write_(std::move(on_write)), pty_(link) {
  loop_.Watch(pty_.fd(), EPOLLIN, [this](uint32_t) { Drain(); });
}

void SwitchFile::Drain() {
  uint8_t written[64];
  while (const size_t count = pty_.Read(written, sizeof(written))) {
    for (const uint8_t byte : ByteView(written, count)) {
      if (byte == '0' || byte == '1') {
        on_write_(byte == '1');
      } else if (byte != '\n') {
        Log("%s: 0x%02X written, neither \"0\" nor \"1\"", link_.c_str(), byte);
      }
    }
  }
}

}  // namespace zvk
