#pragma once

#include <string>

#include "handset_root.h"
#include "relay.h"
#include "scheduling.h"
#include "serial_controller.h"
#include "socket_host.h"
#include "tests/support/child_process.h"

namespace bench {

// socat, which copies between the controller and a Unix socket of the same kind.
class SocatRelay : public Relay {
 public:
  // Of a controller behind a tty, and of the co-processor's socket below root.
  static SocatRelay OfSerialLine(const HandsetRoot& root, const SerialController& controller,
                                 Scheduling scheduling, Sink* sink) {
    return {root, controller.tty() + ",raw,echo=0", "", SocketHost::Carries::kH4, scheduling, sink};
  }
  static SocatRelay OfMessages(const HandsetRoot& root, Scheduling scheduling, Sink* sink) {
    const std::string transport = root.path() + "/run/qvr/transport";
    return {root,       "UNIX-CONNECT:" + transport + ",type=5",
            ",type=5",  SocketHost::Carries::kMessages,
            scheduling, sink};
  }

  std::vector<pid_t> pids() const override { return {socat_.pid()}; }
  void SendCommand() override { host_.SendCommand(); }
  void SendAcl(const Bytes& data) override { host_.SendAcl(data); }

 private:
  // address: of the controller, as socat takes it; options: of the host's socket.
  SocatRelay(const HandsetRoot& root, const std::string& address, const std::string& options,
             SocketHost::Carries carries, Scheduling scheduling, Sink* sink)
      : socat_(AtPriority(scheduling,
                          {"socat", address, "UNIX-LISTEN:" + root.path() + "/socat" + options})),
        host_(root.path() + "/socat", carries, sink) {}

  const test::ChildProcess socat_;
  SocketHost host_;
};

}  // namespace bench
