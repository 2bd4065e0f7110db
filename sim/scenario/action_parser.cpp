#include "sim/scenario/action_parser.h"

#include <vector>

namespace zvk {
namespace {

// What a word of an action stands for. All but times, bytes and addresses fill the action's numbers
// in order.
enum class Argument {
  kByte,
  kCount,
  kOpcode,
  kSpeed,
  kMicroseconds,
  kHandle,
  kReport,
  kRecordBytes,
  kLinkEvent,
  kDirection,
  kActivityState,
  kTime,
  kHex,
  kAddress,
};

struct ActionSyntax {
  const char* name;
  Action::Kind kind;
  std::vector<Argument> arguments;
  size_t required;      // of the arguments; the others may be left out from the right
  uint32_t number = 0;  // when no argument gives one; the others likewise
  ScenarioTime time{0};
  uint32_t second = 0;
};

const std::vector<ActionSyntax>& Actions() {
  using Kind = Action::Kind;
  using A = Argument;
  static const std::vector<ActionSyntax> kActions = {
      {"no-answer", Kind::kNoAnswer, {}, 0},
      {"late", Kind::kLate, {A::kTime}, 1},
      {"lost", Kind::kLost, {}, 0},
      {"status", Kind::kStatus, {A::kByte}, 1},
      {"wrong-opcode", Kind::kWrongOpcode, {A::kOpcode}, 0, 0x0C7F},
      {"zero-credits", Kind::kCredits, {}, 0},
      {"credits", Kind::kCredits, {A::kByte}, 1},
      {"answer", Kind::kAnswer, {A::kHex}, 0},
      {"command-status", Kind::kCommandStatus, {A::kByte}, 0},
      {"twice", Kind::kTwice, {}, 0},
      {"truncated", Kind::kTruncated, {}, 0},
      {"hangup", Kind::kHangUp, {}, 0},
      {"silence", Kind::kSilence, {A::kTime}, 0},
      {"hang", Kind::kHang, {A::kTime}, 0},
      {"stray", Kind::kStray, {A::kByte}, 1},
      {"truncated-event", Kind::kTruncatedEvent, {}, 0},
      {"hardware-error", Kind::kHardwareError, {A::kByte}, 1},
      {"inject", Kind::kInject, {A::kHex}, 1},
      {"grant", Kind::kGrant, {A::kByte}, 1},
      {"coex", Kind::kCoex, {A::kByte}, 1},
      {"coex-message", Kind::kCoexMessage, {A::kHex}, 1},
      {"coex-hangup", Kind::kCoexHangUp, {}, 0},
      {"timesync", Kind::kTimeSync, {A::kMicroseconds}, 1},
      {"noise", Kind::kNoise, {A::kCount}, 1},
      {"split", Kind::kSplit, {A::kCount, A::kTime}, 1, 0, ScenarioTime(5)},
      {"merge", Kind::kMerge, {A::kCount, A::kTime}, 1, 0, ScenarioTime(100)},
      {"speed", Kind::kSpeed, {A::kSpeed}, 1},
      {"warm-up", Kind::kWarmUp, {A::kTime}, 1},
      {"brown-out", Kind::kBrownOut, {}, 0},
      {"co-absent", Kind::kCoAbsent, {A::kTime}, 0},
      {"co-disconnect", Kind::kCoDisconnect, {}, 0},
      {"co-garbage", Kind::kCoGarbage, {A::kCount}, 1},
      {"co-table", Kind::kCoTable, {A::kByte, A::kHex}, 1},
      {"co-event", Kind::kCoEvent, {A::kByte, A::kHex}, 1},
      {"co-truncated", Kind::kCoTruncated, {}, 0},
      {"crash", Kind::kCrash, {A::kByte, A::kByte}, 2},
      {"debug-info", Kind::kDebugInfo, {A::kCount}, 0, 4096},
      {"soc-dump", Kind::kSocDump, {A::kCount}, 0, 4096},
      {"chre-dump", Kind::kChreDump, {A::kCount}, 0, 4096},
      {"quality", Kind::kQuality, {A::kReport, A::kHandle}, 1, 0, {}, 0x0040},
      {"latency-trace", Kind::kLatencyTrace, {A::kByte, A::kByte}, 1, 0, {}, UINT32_MAX},
      {"link-layer", Kind::kLinkLayer, {A::kAddress, A::kLinkEvent, A::kDirection}, 2},
      {"toggle", Kind::kToggle, {A::kByte}, 0, 1},
      {"ewp", Kind::kEwp, {A::kRecordBytes}, 0, 40},
      {"ewp-iso", Kind::kEwpIso, {A::kRecordBytes}, 0, 40},
      {"activity", Kind::kActivity, {A::kActivityState, A::kCount, A::kTime}, 3},
  };
  return kActions;
}

uint32_t TakeNumber(Line& line, Argument argument) {
  switch (argument) {
    case Argument::kCount:
      return line.TakeNumber("a count", 1000000);
    case Argument::kOpcode:
      return line.TakeNumber("an opcode", 0xFFFF);
    case Argument::kSpeed:
      return line.TakeNumber("a speed in bit/s", 10000000);
    case Argument::kMicroseconds:
      return line.TakeNumber("a number of microseconds", UINT32_MAX);
    case Argument::kHandle:
      return line.TakeNumber("a connection handle", 0xFFFF);
    case Argument::kRecordBytes:
      return line.TakeNumber("a number of bytes (at most 1021)", 1021);
    case Argument::kReport:
      return line.TakeWord(
          "a quality report (monitoring, lsto, a2dp, sco, le-audio)",
          {{"monitoring", 1}, {"lsto", 2}, {"a2dp", 3}, {"sco", 4}, {"le-audio", 7}});
    case Argument::kLinkEvent:
      return line.TakeWord("a link-layer event (connect, phy)", {{"connect", 0xFF}, {"phy", 0x18}});
    case Argument::kDirection:
      return line.TakeWord("a direction (tx, rx)", {{"tx", 0}, {"rx", 1}});
    case Argument::kActivityState:
      return line.TakeWord("a state (idle, active, tx, rx)",
                           {{"idle", 0}, {"active", 1}, {"tx", 2}, {"rx", 3}});
    default:
      return line.TakeNumber("a byte", 0xFF);
  }
}

}  // namespace

Action ParseAction(Line& line) {
  const std::string name = line.Next("an action");
  for (const ActionSyntax& syntax : Actions()) {
    if (name != syntax.name) continue;
    Action action{syntax.kind, syntax.number, syntax.second, syntax.time, {}};
    uint32_t* number = &action.number;
    for (size_t i = 0; i < syntax.arguments.size(); ++i) {
      if (line.Empty() && i >= syntax.required) break;
      switch (syntax.arguments[i]) {
        case Argument::kTime:
          action.time = line.TakeTime();
          break;
        case Argument::kHex:
          action.bytes = line.TakeHex();
          break;
        case Argument::kAddress:
          action.bytes = line.TakeAddress();
          break;
        default:
          *number = TakeNumber(line, syntax.arguments[i]);
          number = &action.second;
      }
    }
    return action;
  }
  Line::Bad(name, "an action");
}

}  // namespace zvk
