#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/handset/pty.h"

namespace zvk {

// /sys/power/wake_lock and wake_unlock, with an account for each lock.
class WakeLocks {
 public:
  struct Account {
    uint64_t acquired = 0;
    uint64_t released = 0;
    bool held = false;  // a lock that is held is not held twice
  };
  using OnChange = std::function<void(const std::string& name, bool held)>;

  WakeLocks(EventLoop& loop, const std::string& lock_link, const std::string& unlock_link,
            OnChange on_change);
  ~WakeLocks();

  // By name.
  const std::map<std::string, Account>& accounts() const { return accounts_; }

 private:
  // The names written so far, with how often each was.
  static std::map<std::string, uint64_t> Names(Pty& pty);
  void Drain();

  EventLoop& loop_;
  const OnChange on_change_;
  Pty lock_;
  Pty unlock_;
  std::map<std::string, Account> accounts_;
};

}  // namespace zvk
