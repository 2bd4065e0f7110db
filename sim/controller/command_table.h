#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "sim/wire.h"

namespace zvk {

// The commands that a controller knows. Each group of commands adds its own; the controller looks
// them up. Parameters are at least as long as the entry says when its function is called.
class CommandTable {
 public:
  // Returns the return parameters of Command Complete, status first. Empty: no answer is sent.
  using RunComplete = std::function<Writer(ByteView params)>;
  // Returns the status of Command Status; what the command leads to comes later, by a timer.
  using RunStatus = std::function<uint8_t(ByteView params)>;

  struct Entry {
    size_t min_params;
    RunComplete complete;  // either this
    RunStatus status;      // or this
  };

  void Complete(uint16_t opcode, size_t min_params, RunComplete run) {
    entries_[opcode] = {min_params, std::move(run), nullptr};
  }
  // The answer is always the same.
  void Complete(uint16_t opcode, const Writer& answer) {
    Complete(opcode, 0, [answer](ByteView) { return answer; });
  }
  void Status(uint16_t opcode, size_t min_params, RunStatus run) {
    entries_[opcode] = {min_params, nullptr, std::move(run)};
  }

  // Null for a command that the controller does not know.
  const Entry* Find(uint16_t opcode) const {
    const auto found = entries_.find(opcode);
    return found == entries_.end() ? nullptr : &found->second;
  }

 private:
  std::map<uint16_t, Entry> entries_;
};

}  // namespace zvk
