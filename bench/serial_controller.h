#pragma once

#include <android-base/unique_fd.h>

#include <mutex>
#include <string>
#include <thread>

#include "controller.h"
#include "tests/support/pty.h"

namespace bench {

// The controller's end of a pty, with a thread that answers.
class SerialController : public Controller {
 public:
  SerialController();
  ~SerialController() override;

  // The path of the host's end.
  const std::string& tty() const { return pty_.path(); }
  // In one write.
  void SendEvent(const Bytes& event) override;

 private:
  void Answer();

  test::Pty pty_;
  const android::base::unique_fd stop_;
  std::mutex write_lock_;
  std::thread thread_;
};

}  // namespace bench
