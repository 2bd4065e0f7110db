#pragma once

#include <sys/types.h>

#include <vector>

#include "controller.h"

namespace bench {

// Programs between a controller and a sink.
class Relay {
 public:
  virtual ~Relay() = default;
  // Of all processes that a packet goes through.
  virtual std::vector<pid_t> pids() const = 0;
  // Hands it a command, which the controller answers.
  virtual void SendCommand() = 0;
  // data: a whole packet, without type byte. Waits while the relay takes nothing.
  virtual void SendAcl(const Bytes& data) = 0;
};

// Read BD_ADDR.
constexpr unsigned char kCommand[] = {0x09, 0x10, 0x00};

}  // namespace bench
