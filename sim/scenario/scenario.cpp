#include "sim/scenario/scenario.h"

#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace zvk {
namespace {

constexpr const char* kRequestNames[] = {"find",  "packet", "power",  "low-power",
                                         "speed", "dump",   "unknown"};

std::map<std::string, uint32_t> Requests() {
  std::map<std::string, uint32_t> requests;
  for (uint32_t i = 0; i < static_cast<uint32_t>(CoRequest::kUnknown); ++i) {
    requests[kRequestNames[i]] = i;
  }
  return requests;
}

Trigger ParseTrigger(Line& line) {
  Trigger trigger;
  const std::string word = line.Next("a trigger");
  if (word == "on" || word == "after") {
    trigger.kind = word == "on" ? Trigger::Kind::kCommand : Trigger::Kind::kAnswered;
    trigger.opcode = static_cast<uint16_t>(line.TakeNumber("an opcode", 0xFFFF));
  } else if (word == "request") {
    trigger.kind = Trigger::Kind::kRequest;
    trigger.opcode = static_cast<uint16_t>(
        line.TakeWord("a request (find, packet, power, low-power, speed, dump)", Requests()));
  } else if (word == "power") {
    trigger.kind = Trigger::Kind::kPower;
  } else if (word != "at") {
    Line::Bad(word, "a trigger (on, after, at, power, request)");
  }
  if (trigger.kind != Trigger::Kind::kStart) {
    trigger.and_later = line.Take("from");
    if (trigger.and_later || line.Take("nth")) trigger.nth = line.TakeNumber("a count", 1000000);
  }
  if (word == "at" || (word != "on" && word != "request" && line.NextIsTime()))
    trigger.time = line.TakeTime();
  return trigger;
}

Step ParseStep(Line& line, bool needs_trigger, const std::vector<ActionType>& types) {
  const bool triggered =
      needs_trigger || line.NextIsOneOf({"on", "after", "at", "power", "request"});
  const Trigger trigger = triggered ? ParseTrigger(line) : Trigger{};
  const Action action = ParseAction(line, types);
  if (!line.Empty()) throw std::runtime_error("\"" + line.Next("") + "\" is too much");
  const bool fits = trigger.kind == Trigger::Kind::kCommand ||
                    (trigger.kind == Trigger::Kind::kRequest &&
                     action.type->answer == ActionType::Answer::kOfAnything);
  if (action.type->change && !fits) {
    throw std::runtime_error("this action needs \"on OPCODE\"");
  }
  return {trigger, action};
}

}  // namespace

Step ParseStep(const std::string& text, const std::vector<ActionType>& types) {
  Line line(text);
  return ParseStep(line, false, types);
}

std::string CoRequestName(CoRequest request) { return kRequestNames[static_cast<size_t>(request)]; }

std::vector<Step> ParseScenario(const std::string& text, const std::string& name,
                                const std::vector<ActionType>& types) {
  std::vector<Step> steps;
  std::istringstream lines(text);
  int number = 0;
  for (std::string text_line; std::getline(lines, text_line);) {
    ++number;
    try {
      Line line(text_line);
      if (line.Empty()) continue;
      steps.push_back(ParseStep(line, true, types));
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(name + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  return steps;
}

std::vector<Step> ReadScenario(const std::string& file, const std::vector<ActionType>& types) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  if (!in.good()) throw std::runtime_error("cannot read " + file);
  return ParseScenario(text.str(), file, types);
}

}  // namespace zvk
