#pragma once

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "support/pty.h"

namespace test {

// The controller's end of a pty, strict about nothing but framing: notes every command and answers
// with what its script says, on a thread of its own.
class ScriptedController {
 public:
  // Takes a command (opcode first), returns the whole event to answer with, empty for silence.
  using Script = std::function<Bytes(const Bytes& command)>;

  ScriptedController(Pty& pty, Script script);
  ~ScriptedController();

  std::vector<Bytes> Commands();
  // Ends the thread; returns what of an unfinished packet has arrived.
  Bytes Stop();

  // Command Complete with one credit.
  static Bytes Complete(const Bytes& command, uint8_t status, const Bytes& parameters = {});

 private:
  void Run();

  Pty& pty_;
  const Script script_;
  int stop_[2];
  std::mutex lock_;
  std::vector<Bytes> commands_;
  Bytes stream_;  // what of a packet has arrived; the thread's while it runs
  std::thread thread_;
};

}  // namespace test
