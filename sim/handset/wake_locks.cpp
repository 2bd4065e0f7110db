#include "sim/handset/wake_locks.h"

#include <sys/epoll.h>

namespace zvk {
namespace {

// Names that were written one after the other arrive glued together: "aa" is "a" twice.
std::string Unrepeated(const std::string& text) {
  for (size_t size = 1; size < text.size(); ++size) {
    if (text.size() % size != 0) continue;
    if (text.compare(size, std::string::npos, text, 0, text.size() - size) == 0) {
      return text.substr(0, size);
    }
  }
  return text;
}

}  // namespace

WakeLocks::WakeLocks(EventLoop& loop, const std::string& lock_link, const std::string& unlock_link)
    : loop_(loop), lock_(lock_link), unlock_(unlock_link) {
  loop_.Watch(lock_.fd(), EPOLLIN, [this](uint32_t) { Drain(); });
  loop_.Watch(unlock_.fd(), EPOLLIN, [this](uint32_t) { Drain(); });
}

WakeLocks::~WakeLocks() {
  loop_.Unwatch(lock_.fd());
  loop_.Unwatch(unlock_.fd());
}

void WakeLocks::Drain() {
  Count(lock_, &Account::acquired);
  Count(unlock_, &Account::released);
}

void WakeLocks::Count(Pty& pty, uint64_t Account::*counter) {
  uint8_t written[4096];
  std::string text;
  while (const size_t count = pty.Read(written, sizeof(written))) {
    text += ByteView(written, count).Text();
  }
  for (size_t at = 0; at < text.size();) {
    const size_t start = text.find_first_not_of(" \n", at);
    if (start == std::string::npos) return;
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    const std::string names = line.substr(0, line.find(' '));  // a time-out may follow
    const std::string name = Unrepeated(names);
    accounts_[name].*counter += names.size() / name.size();
    at = end;
  }
}

}  // namespace zvk
