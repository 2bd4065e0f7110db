// What a scenario file says. The grammar is described in docs/simulator.md.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "sim/wire.h"

namespace zvk {

using ScenarioTime = std::chrono::milliseconds;

// What a host may ask the co-processor for. The control requests are in the order of their numbers.
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
  ScenarioTime time{0};

  bool Counts(uint32_t count) const {
    return nth == 0 || count == nth || (and_later && count > nth);
  }
};

struct Action {
  enum class Kind {
    // To the answer of the command or the request that triggers it.
    kNoAnswer,
    kLate,
    kLost,
    kStatus,
    // To the answer of the command that triggers it.
    kWrongOpcode,
    kCredits,
    kAnswer,
    kCommandStatus,
    kTwice,
    kTruncated,
    // By the handset, at any time.
    kHangUp,
    kSilence,
    kHang,
    kStray,
    kTruncatedEvent,
    kHardwareError,
    kInject,
    kGrant,
    kCoex,
    kCoexMessage,
    kCoexHangUp,
    kTimeSync,
    kNoise,
    kSplit,
    kMerge,
    kSpeed,
    kWarmUp,
    kBrownOut,
    // By the co-processor.
    kCoAbsent,
    kCoDisconnect,
    kCoGarbage,
    kCoTable,
    kCoEvent,
    kCoTruncated,
    // By the controller while it has power.
    kCrash,
    kDebugInfo,
    kSocDump,
    kChreDump,
    kQuality,
    kLatencyTrace,
    kLinkLayer,
    kToggle,
    kEwp,
    kEwpIso,
    kActivity,
  };
  Kind kind;
  uint32_t number = 0;
  uint32_t second = 0;
  ScenarioTime time{0};
  Bytes bytes;

  bool ChangesAnswer() const { return kind <= Kind::kTruncated; }
  bool ChangesAnyAnswer() const { return kind <= Kind::kStatus; }
};

struct Step {
  Trigger trigger;
  Action action;
};

// name is what errors call the text. Throws std::runtime_error("name:line: reason").
std::vector<Step> ParseScenario(const std::string& text, const std::string& name);
std::vector<Step> ReadScenario(const std::string& file);

}  // namespace zvk
