#pragma once

#include <string>

#include "daemon.h"
#include "handset_root.h"
#include "relay.h"
#include "scheduling.h"
#include "socket_host.h"
#include "tests/support/child_process.h"

namespace bench {

// What a host stack of another kind talks to: bthalctl, which offers the service as an H4 port, and
// the service.
class ChainRelay : public Relay {
 public:
  // The tool has the priority that its peer has.
  ChainRelay(const HandsetRoot& root, Scheduling scheduling, Sink* sink)
      : daemon_(root, scheduling),
        tool_(AtPriority(scheduling, {test::ProgramDir() + "/bthalctl", "--root", root.path(),
                                      "serve-h4", "--unix", root.path() + "/h4"})),
        host_(root.path() + "/h4", SocketHost::Carries::kH4, sink) {}

  std::vector<pid_t> pids() const override { return {daemon_.pid(), tool_.pid()}; }
  void SendCommand() override { host_.SendCommand(); }
  void SendAcl(const Bytes& data) override { host_.SendAcl(data); }

 private:
  const Daemon daemon_;
  const test::ChildProcess tool_;
  SocketHost host_;
};

}  // namespace bench
