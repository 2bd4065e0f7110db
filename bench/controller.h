#pragma once

#include <cstdint>
#include <vector>

namespace bench {

using Bytes = std::vector<uint8_t>;

// A controller that answers every command with a Command Complete of status 0, which is all that a
// bring-up needs, and sends what a benchmark gives it.
class Controller {
 public:
  virtual ~Controller() = default;
  // event: without H4 type byte.
  virtual void SendEvent(const Bytes& event) = 0;

 protected:
  // command: at least an opcode. The return parameter is a chip id that has no firmware file of its
  // own.
  static Bytes Success(const uint8_t* command) {
    return {0x0E, 0x05, 0x01, command[0], command[1], 0x00, 0x20};
  }
};

}  // namespace bench
