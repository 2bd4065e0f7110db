#include "sim/scenario/scenario.h"

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace zvk {
namespace {

enum class Argument { kNone, kByte, kCount, kOpcode, kMicroseconds, kTime, kHex };

struct ActionSyntax {
  const char* name;
  Action::Kind kind;
  Argument argument;
  bool optional_argument;
  bool optional_time;  // a time may follow
  uint32_t number;     // when no argument gives one
  ScenarioTime time;   // likewise
};

using Kind = Action::Kind;
constexpr ScenarioTime kForEver{0};

constexpr ActionSyntax kActions[] = {
    {"no-answer", Kind::kNoAnswer, Argument::kNone, false, false, 0, kForEver},
    {"late", Kind::kLate, Argument::kTime, false, false, 0, kForEver},
    {"status", Kind::kStatus, Argument::kByte, false, false, 0, kForEver},
    {"wrong-opcode", Kind::kWrongOpcode, Argument::kOpcode, true, false, 0x0C7F, kForEver},
    {"zero-credits", Kind::kCredits, Argument::kNone, false, false, 0, kForEver},
    {"credits", Kind::kCredits, Argument::kByte, false, false, 0, kForEver},
    {"truncated", Kind::kTruncated, Argument::kNone, false, false, 0, kForEver},
    {"hangup", Kind::kHangUp, Argument::kNone, false, false, 0, kForEver},
    {"silence", Kind::kSilence, Argument::kNone, false, true, 0, kForEver},
    {"stray", Kind::kStray, Argument::kByte, false, false, 0, kForEver},
    {"truncated-event", Kind::kTruncatedEvent, Argument::kNone, false, false, 0, kForEver},
    {"hardware-error", Kind::kHardwareError, Argument::kByte, false, false, 0, kForEver},
    {"inject", Kind::kInject, Argument::kHex, false, false, 0, kForEver},
    {"grant", Kind::kGrant, Argument::kByte, false, false, 0, kForEver},
    {"coex", Kind::kCoex, Argument::kByte, false, false, 0, kForEver},
    {"timesync", Kind::kTimeSync, Argument::kMicroseconds, false, false, 0, kForEver},
    {"noise", Kind::kNoise, Argument::kCount, false, false, 0, kForEver},
    {"split", Kind::kSplit, Argument::kCount, false, true, 0, ScenarioTime(5)},
    {"merge", Kind::kMerge, Argument::kCount, false, true, 0, ScenarioTime(100)},
};

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
  std::string Rest() {
    std::string rest;
    while (!Empty()) rest += words_[next_++] + " ";
    return rest;
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
  for (const ActionSyntax& syntax : kActions) {
    if (name != syntax.name) continue;
    Action action{syntax.kind, syntax.number, syntax.time, {}};
    const bool given = !(syntax.optional_argument && line.Empty());
    if (syntax.argument == Argument::kByte) action.number = line.TakeNumber("a byte", 0xFF);
    if (syntax.argument == Argument::kCount) action.number = line.TakeNumber("a count", 1000000);
    if (syntax.argument == Argument::kOpcode && given) {
      action.number = line.TakeNumber("an opcode", 0xFFFF);
    }
    if (syntax.argument == Argument::kMicroseconds) {
      action.number = line.TakeNumber("a number of microseconds", UINT32_MAX);
    }
    if (syntax.argument == Argument::kTime) action.time = line.TakeTime();
    if (syntax.argument == Argument::kHex) {
      const std::string text = line.Rest();
      if (!ParseHex(text, &action.bytes)) Line::Bad(text, "a row of hexadecimal bytes");
    }
    if (syntax.optional_time && !line.Empty()) action.time = line.TakeTime();
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
