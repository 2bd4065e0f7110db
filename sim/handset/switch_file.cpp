#include "sim/handset/switch_file.h"

#include <sys/epoll.h>

#include "sim/base/log.h"

namespace zvk {

SwitchFile::SwitchFile(EventLoop& loop, const std::string& link,
                       std::function<void(bool on, bool more)> on_write)
    : loop_(loop), link_(link), on_write_(std::move(on_write)), pty_(link) {
  loop_.Watch(pty_.fd(), EPOLLIN, [this](uint32_t) { Drain(); });
}

void SwitchFile::Drain() {
  uint8_t written[64];
  while (const size_t count = pty_.Read(written, sizeof(written))) {
    for (size_t i = 0; i < count; ++i) {
      if (written[i] == '0' || written[i] == '1') {
        on_write_(written[i] == '1', i + 1 < count);
      } else if (written[i] != '\n') {
        Log("%s: 0x%02X written, neither \"0\" nor \"1\"", link_.c_str(), written[i]);
      }
    }
  }
}

}  // namespace zvk
