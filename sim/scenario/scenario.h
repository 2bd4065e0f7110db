// What a scenario file says. The grammar is described in docs/simulator.md.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/scenario/action.h"

namespace zvk {

// What a host may ask the co-processor for. Control requests are in the order of their numbers.
enum class CoRequest { kFind, kPacket, kPower, kLowPower, kSpeed, kDump, kUnknown };
// As a scenario and the status file call it.
std::string CoRequestName(CoRequest request);

// When a step runs.
struct Trigger {
  enum class Kind {
    kCommand,   // a command arrives
    kAnswered,  // time after a command was answered
    kStart,     // time after the simulator's start
    kPower,     // time after the controller was switched on
    kRequest,   // a request arrives at the co-processor
  };
  Kind kind = Kind::kStart;
  uint16_t opcode = 0;  // or the number of the request
  // The count (of the command, or of power-ons) that is meant; 0 for every one.
  uint32_t nth = 0;
  bool and_later = false;  // the nth and all after it
  uint32_t since = 0;      // the count at which counting for this trigger begins
  ScenarioTime time{0};

  bool Counts(uint32_t count) const {
    return nth == 0 || count - since == nth || (and_later && count - since > nth);
  }
};

struct Step {
  Trigger trigger;
  Action action;
};

// types must outlive the steps. name is what errors call the text. Throws
// std::runtime_error("name:line: reason").
std::vector<Step> ParseScenario(const std::string& text, const std::string& name,
                                const std::vector<ActionType>& types);
std::vector<Step> ReadScenario(const std::string& file, const std::vector<ActionType>& types);
// A step by itself; an action without a trigger is due at once. Throws std::runtime_error with the
// reason.
Step ParseStep(const std::string& text, const std::vector<ActionType>& types);

}  // namespace zvk
