#pragma once

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "bthal/uart_rig.h"

namespace test {

// The controller's end of a pty, strict about nothing but framing: notes every command and answers
// with what its script says. It runs from construction to destruction.
class ScriptedController {
 public:
  // Takes a command (opcode first), returns the whole event to answer with, empty for silence.
  using Script = std::function<Bytes(const Bytes& command)>;

  ScriptedController(Pty& pty, Script script);
  ~ScriptedController();

  std::vector<Bytes> Commands();

  // Command Complete with one credit.
  static Bytes Complete(const Bytes& command, uint8_t status, const Bytes& parameters = {});

 private:
  void Run();

  Pty& pty_;
  const Script script_;
  int stop_[2];
  std::mutex lock_;
  std::vector<Bytes> commands_;
  std::thread thread_;
};

}  // namespace test
