#pragma once

#include "tests/support/child_process.h"

namespace bench {

// A program between a controller and a sink.
class Relay {
 public:
  virtual ~Relay() = default;
  virtual const test::ChildProcess& process() const = 0;
  // Hands it a command, which the controller answers.
  virtual void SendCommand() = 0;
};

// Read BD_ADDR.
constexpr unsigned char kCommand[] = {0x09, 0x10, 0x00};

}  // namespace bench
