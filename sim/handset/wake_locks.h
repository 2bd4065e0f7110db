#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/handset/pty.h"

namespace zvk {

// /sys/power/wake_lock and wake_unlock, and the account of who holds what.
class WakeLocks {
 public:
  struct Account {
    uint64_t acquired = 0;
    uint64_t released = 0;
    bool held() const { return acquired > released; }
  };

  WakeLocks(EventLoop& loop, const std::string& lock_link, const std::string& unlock_link);
  ~WakeLocks();

  // By name.
  const std::map<std::string, Account>& accounts() const { return accounts_; }

 private:
  void Drain();
  void Count(Pty& pty, uint64_t Account::*counter);

  EventLoop& loop_;
  Pty lock_;
  Pty unlock_;
  std::map<std::string, Account> accounts_;
};

}  // namespace zvk
