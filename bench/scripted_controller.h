#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace bench {

// The controller's end of a pty: answers every command with a Command Complete of status 0, which
// is all that a bring-up needs, and sends what a benchmark gives it. Opens at construction, closes
// at destruction; the answering thread is its own.
class ScriptedController {
 public:
  ScriptedController();
  ~ScriptedController();

  // The path of the host's end.
  const std::string& tty() const { return tty_; }
  // Whole H4 packets, written at once.
  void Send(const std::vector<uint8_t>& bytes);

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
