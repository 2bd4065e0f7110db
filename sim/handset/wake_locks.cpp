#include "sim/handset/wake_locks.h"

#include <sys/epoll.h>

namespace zvk {
namespace {

// Names that were written one after the other are read as one text: "aa" is "a" twice.
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

WakeLocks::WakeLocks(EventLoop& loop, const std::string& lock_link, const std::string& unlock_link,
                     OnChange on_change)
    : loop_(loop), on_change_(std::move(on_change)), lock_(lock_link), unlock_(unlock_link) {
  loop_.Watch(lock_.fd(), EPOLLIN, [this](uint32_t) { Drain(); });
  loop_.Watch(unlock_.fd(), EPOLLIN, [this](uint32_t) { Drain(); });
}

WakeLocks::~WakeLocks() {
  loop_.Unwatch(lock_.fd());
  loop_.Unwatch(unlock_.fd());
}

// Reads both files together: a host alternates between acquiring and releasing, so the numbers tell
// the last state even when several turns are seen at once.
void WakeLocks::Drain() {
  std::map<std::string, std::pair<uint64_t, uint64_t>> changes;
  for (const auto& [name, count] : Names(lock_)) changes[name].first = count;
  for (const auto& [name, count] : Names(unlock_)) changes[name].second = count;
  for (const auto& [name, change] : changes) {
    Account& account = accounts_[name];
    account.acquired += change.first;
    account.released += change.second;
    const bool more_acquired = change.first > change.second;
    const bool held = change.first == change.second ? account.held : more_acquired;
    if (held == account.held) continue;
    account.held = held;
    on_change_(name, held);
  }
}

std::map<std::string, uint64_t> WakeLocks::Names(Pty& pty) {
  uint8_t written[4096];
  std::string text;
  while (const size_t count = pty.Read(written, sizeof(written))) {
    text += ByteView(written, count).Text();
  }
  std::map<std::string, uint64_t> names;
  for (size_t at = 0; at < text.size();) {
    const size_t start = text.find_first_not_of(" \n", at);
    if (start == std::string::npos) break;
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    const std::string repeated = line.substr(0, line.find(' '));  // a time-out may follow
    const std::string name = Unrepeated(repeated);
    names[name] += repeated.size() / name.size();
    at = end;
  }
  return names;
}

}  // namespace zvk
