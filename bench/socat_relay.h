#pragma once

#include <android-base/unique_fd.h>

#include <string>
#include <thread>

#include "relay.h"
#include "scheduling.h"
#include "sink.h"

namespace bench {

// socat, which copies between the controller and a Unix socket of the same kind.
class SocatRelay : public Relay {
 public:
  enum class Carries { kH4, kMessages };  // H4 packets of a tty, messages of a co-processor

  // address: of the controller, as socat takes it. folder: for the socket.
  SocatRelay(const std::string& address, Carries carries, const std::string& folder,
             Scheduling scheduling, Sink* sink);
  ~SocatRelay() override;

  const test::ChildProcess& process() const override { return socat_; }
  void SendCommand() override;

 private:
  void Read();

  const Carries carries_;
  const std::string path_;
  Sink* const sink_;
  const test::ChildProcess socat_;
  android::base::unique_fd socket_;
  std::thread reader_;
};

}  // namespace bench
