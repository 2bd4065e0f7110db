#pragma once

#include <mutex>
#include <string>
#include <thread>

#include "controller.h"

namespace bench {

// The controller's end of a pty. Opens at construction, closes at destruction; the answering thread
// is its own.
class SerialController : public Controller {
 public:
  SerialController();
  ~SerialController() override;

  // The path of the host's end.
  const std::string& tty() const { return tty_; }
  // In one write.
  void SendEvent(const Bytes& event) override;

 private:
  void Answer();

  int master_ = -1;
  int slave_ = -1;  // kept open, so that a host may come and go
  int stop_ = -1;
  std::string tty_;
  std::mutex write_lock_;
  std::thread thread_;
};

}  // namespace bench
