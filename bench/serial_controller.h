#pragma once

#include <android-base/unique_fd.h>

#include <mutex>
#include <string>
#include <thread>

#include "arrivals.h"
#include "controller.h"
#include "tests/support/pty.h"
#include "tools/wire/h4_framer.h"

namespace bench {

// The controller's end of a pty, with a thread that answers commands and counts data.
class SerialController : public Controller {
 public:
  // Of the one command that it does not answer.
  static constexpr uint16_t kSilentOpcode = 0xFCFE;

  SerialController();
  ~SerialController() override;

  // The path of the host's end.
  const std::string& tty() const { return pty_.path(); }
  // In one write.
  void SendEvent(const Bytes& event) override;
  // data: without type byte. Waits while the line takes nothing.
  void SendAcl(const Bytes& data);
  // What the host has sent.
  const Arrivals& acl() const { return acl_; }

 private:
  void Read();
  void OnPacket(wire::PacketType type, wire::ByteView packet);
  void Send(wire::PacketType type, const Bytes& packet);

  test::Pty pty_;
  const android::base::unique_fd stop_;
  std::mutex write_lock_;
  Arrivals acl_;
  std::thread thread_;
};

}  // namespace bench
