#pragma once

#include <string>
#include <vector>

#include "handset_root.h"
#include "scheduling.h"
#include "tests/support/child_process.h"

namespace bench {

// The service on a root folder: registered, not attached to. Killed with this object.
class Daemon {
 public:
  // Throws std::runtime_error when it does not come up.
  Daemon(const HandsetRoot& root, Scheduling scheduling,
         const std::vector<std::string>& command = {Program()});

  pid_t pid() const { return process_.pid(); }
  test::ChildProcess& process() { return process_; }

 private:
  static std::string Program();

  test::ChildProcess process_;
};

}  // namespace bench
