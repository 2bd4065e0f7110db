#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tools/hci/packet.h"

namespace bthalctl {

// An HCI command as a user writes it: an opcode or a name, then parameters in hex.
class CommandWords {
 public:
  void Declare(CLI::App& command);
  // The opcode and the parameters. Throws Failure(kUsage).
  std::pair<uint16_t, Bytes> Parse() const;

 private:
  std::string opcode_;
  std::vector<std::string> parameters_;
};

}  // namespace bthalctl
