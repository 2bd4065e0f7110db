#include "sim/scenario/action.h"

#include <map>

namespace zvk {
namespace {

// How an argument that is a number is written.
struct NumberSyntax {
  const char* expected;
  uint32_t most;
  std::map<std::string, uint32_t> words;  // if there are any, one of these and no number
};

const NumberSyntax& SyntaxOf(Argument::Kind kind) {
  // In the order of Argument::Kind.
  static const std::vector<NumberSyntax> kSyntax = {
      {"a byte", 0xFF, {}},
      {"a count", 1000000, {}},
      {"an opcode", 0xFFFF, {}},
      {"a speed in bit/s", 10000000, {}},
      {"a number of microseconds", UINT32_MAX, {}},
      {"a connection handle", 0xFFFF, {}},
      {"a number of bytes (at most 1021)", 1021, {}},
      {"a quality report (monitoring, lsto, a2dp, sco, le-audio)",
       0,
       {{"monitoring", 1}, {"lsto", 2}, {"a2dp", 3}, {"sco", 4}, {"le-audio", 7}}},
      {"a link-layer event (connect, phy)", 0, {{"connect", 0xFF}, {"phy", 0x18}}},
      {"a direction (tx, rx)", 0, {{"tx", 0}, {"rx", 1}}},
      {"a state (idle, active, tx, rx)", 0, {{"idle", 0}, {"active", 1}, {"tx", 2}, {"rx", 3}}},
  };
  return kSyntax[kind];
}

uint32_t TakeNumber(Line& line, Argument::Kind kind) {
  const NumberSyntax& syntax = SyntaxOf(kind);
  return syntax.words.empty() ? line.TakeNumber(syntax.expected, syntax.most)
                              : line.TakeWord(syntax.expected, syntax.words);
}

}  // namespace

Action ParseAction(Line& line, const std::vector<ActionType>& types) {
  const std::string name = line.Next("an action");
  for (const ActionType& type : types) {
    if (name != type.name) continue;
    Arguments taken;
    uint32_t* number = &taken.number;
    for (const Argument& argument : type.arguments) {
      const bool left_out = line.Empty() && argument.otherwise != Argument::kRequired;
      if (argument.kind == Argument::kTime) {
        taken.time = left_out ? ScenarioTime(argument.otherwise) : line.TakeTime();
      } else if (argument.kind == Argument::kAddress) {
        taken.bytes = line.TakeAddress();
      } else if (argument.kind == Argument::kHex) {
        if (!left_out) taken.bytes = line.TakeHex();
      } else {
        *number =
            left_out ? static_cast<uint32_t>(argument.otherwise) : TakeNumber(line, argument.kind);
        number = &taken.second;
      }
    }
    return {&type, taken};
  }
  Line::Bad(name, "an action");
}

}  // namespace zvk
