#include "sim/scenario/scenario.h"

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace zvk {
namespace {

// What a word of an action stands for. All but times and bytes fill the action's numbers in order.
enum class Argument { kByte, kCount, kOpcode, kSpeed, kMicroseconds, kTime, kHex };

struct ActionSyntax {
  const char* name;
  Action::Kind kind;
  std::vector<Argument> arguments;
  size_t required;       // of the arguments; the others may be left out from the right
  uint32_t number = 0;   // when no argument gives one
  ScenarioTime time{0};  // likewise
};

const std::vector<ActionSyntax>& Actions() {
  using Kind = Action::Kind;
  using A = Argument;
  static const std::vector<ActionSyntax> kActions = {
      {"no-answer", Kind::kNoAnswer, {}, 0},
      {"late", Kind::kLate, {A::kTime}, 1},
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
      {"stray", Kind::kStray, {A::kByte}, 1},
      {"truncated-event", Kind::kTruncatedEvent, {}, 0},
      {"hardware-error", Kind::kHardwareError, {A::kByte}, 1},
      {"inject", Kind::kInject, {A::kHex}, 1},
      {"grant", Kind::kGrant, {A::kByte}, 1},
      {"coex", Kind::kCoex, {A::kByte}, 1},
      {"timesync", Kind::kTimeSync, {A::kMicroseconds}, 1},
      {"noise", Kind::kNoise, {A::kCount}, 1},
      {"split", Kind::kSplit, {A::kCount, A::kTime}, 1, 0, ScenarioTime(5)},
      {"merge", Kind::kMerge, {A::kCount, A::kTime}, 1, 0, ScenarioTime(100)},
      {"speed", Kind::kSpeed, {A::kSpeed}, 1},
      {"warm-up", Kind::kWarmUp, {A::kTime}, 1},
      {"brown-out", Kind::kBrownOut, {}, 0},
      {"crash", Kind::kCrash, {A::kByte, A::kByte}, 2},
      {"debug-info", Kind::kDebugInfo, {A::kCount}, 0, 4096},
      {"soc-dump", Kind::kSocDump, {A::kCount}, 0, 4096},
      {"chre-dump", Kind::kChreDump, {A::kCount}, 0, 4096},
  };
  return kActions;
}

// Decimal or 0x….
std::optional<uint32_t> Number(const std::string& word, uint32_t most) {
  if (word.empty() || word[0] < '0' || word[0] > '9') return std::nullopt;
  char* end = nullptr;
  const bool hexadecimal = word.size() > 1 && (word[1] == 'x' || word[1] == 'X');
  const unsigned long long value = std::strtoull(word.c_str(), &end, hexadecimal ? 16 : 10);
  if (*end != '\0' || value > most) return std::nullopt;
  return static_cast<uint32_t>(value);
}

// "250ms" or "2s".
std::optional<ScenarioTime> Time(const std::string& word) {
  const size_t digits = word.find_first_not_of("0123456789");
  if (digits == 0 || digits == std::string::npos) return std::nullopt;
  const auto value = Number(word.substr(0, digits), 86400000);
  const std::string unit = word.substr(digits);
  if (!value || (unit != "ms" && unit != "s")) return std::nullopt;
  return ScenarioTime(int64_t{*value} * (unit == "s" ? 1000 : 1));
}

// The words of one line, taken from the left.
class Line {
 public:
  explicit Line(const std::string& text) {
    std::istringstream stream(text.substr(0, text.find('#')));
    for (std::string word; stream >> word;) words_.push_back(word);
  }

  bool Empty() const { return next_ == words_.size(); }
  std::string Next(const char* expected) {
    if (Empty()) throw std::runtime_error(std::string(expected) + " is missing");
    return words_[next_++];
  }
  bool Take(const std::string& word) {
    if (Empty() || words_[next_] != word) return false;
    ++next_;
    return true;
  }
  uint32_t TakeNumber(const char* expected, uint32_t most) {
    const std::string word = Next(expected);
    const auto value = Number(word, most);
    if (!value) Bad(word, expected);
    return *value;
  }
  ScenarioTime TakeTime() {
    const std::string word = Next("a time");
    const auto time = Time(word);
    if (!time) Bad(word, "a time (250ms, 2s)");
    return *time;
  }
  bool NextIsTime() const { return !Empty() && Time(words_[next_]).has_value(); }
  // All that is left.
  Bytes TakeHex() {
    std::string text = Next("a row of hexadecimal bytes");
    while (!Empty()) text += " " + words_[next_++];
    Bytes bytes;
    if (!ParseHex(text, &bytes)) Bad(text, "a row of hexadecimal bytes");
    return bytes;
  }

  [[noreturn]] static void Bad(const std::string& word, const char* expected) {
    throw std::runtime_error("\"" + word + "\" is not " + expected);
  }

 private:
  std::vector<std::string> words_;
  size_t next_ = 0;
};

Trigger ParseTrigger(Line& line) {
  Trigger trigger;
  const std::string word = line.Next("a trigger");
  if (word == "on" || word == "after") {
    trigger.kind = word == "on" ? Trigger::Kind::kCommand : Trigger::Kind::kAnswered;
    trigger.opcode = static_cast<uint16_t>(line.TakeNumber("an opcode", 0xFFFF));
  } else if (word == "power") {
    trigger.kind = Trigger::Kind::kPower;
  } else if (word != "at") {
    Line::Bad(word, "a trigger (on, after, at, power)");
  }
  if (trigger.kind != Trigger::Kind::kStart) {
    trigger.and_later = line.Take("from");
    if (trigger.and_later || line.Take("nth")) trigger.nth = line.TakeNumber("a count", 1000000);
  }
  if (word == "at" || (word != "on" && line.NextIsTime())) trigger.time = line.TakeTime();
  return trigger;
}

Action ParseAction(Line& line) {
  const std::string name = line.Next("an action");
  for (const ActionSyntax& syntax : Actions()) {
    if (name != syntax.name) continue;
    Action action{syntax.kind, syntax.number, 0, syntax.time, {}};
    uint32_t* number = &action.number;
    for (size_t i = 0; i < syntax.arguments.size(); ++i) {
      if (line.Empty() && i >= syntax.required) break;
      switch (syntax.arguments[i]) {
        case Argument::kTime:
          action.time = line.TakeTime();
          continue;
        case Argument::kHex:
          action.bytes = line.TakeHex();
          continue;
        case Argument::kByte:
          *number = line.TakeNumber("a byte", 0xFF);
          break;
        case Argument::kCount:
          *number = line.TakeNumber("a count", 1000000);
          break;
        case Argument::kOpcode:
          *number = line.TakeNumber("an opcode", 0xFFFF);
          break;
        case Argument::kSpeed:
          *number = line.TakeNumber("a speed in bit/s", 10000000);
          break;
        case Argument::kMicroseconds:
          *number = line.TakeNumber("a number of microseconds", UINT32_MAX);
          break;
      }
      number = &action.second;
    }
    return action;
  }
  Line::Bad(name, "an action");
}

}  // namespace

std::vector<Step> ParseScenario(const std::string& text, const std::string& name) {
  std::vector<Step> steps;
  std::istringstream lines(text);
  int number = 0;
  for (std::string text_line; std::getline(lines, text_line);) {
    ++number;
    try {
      Line line(text_line);
      if (line.Empty()) continue;
      const Trigger trigger = ParseTrigger(line);
      const Action action = ParseAction(line);
      if (!line.Empty()) throw std::runtime_error("\"" + line.Next("") + "\" is too much");
      if (action.ChangesAnswer() && trigger.kind != Trigger::Kind::kCommand) {
        throw std::runtime_error("this action needs \"on OPCODE\"");
      }
      steps.push_back({trigger, action});
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(name + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  return steps;
}

std::vector<Step> ReadScenario(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  if (!in.good()) throw std::runtime_error("cannot read " + file);
  return ParseScenario(text.str(), file);
}

}  // namespace zvk
