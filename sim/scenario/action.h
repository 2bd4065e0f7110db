#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/controller/hci_out.h"
#include "sim/scenario/line.h"

namespace zvk {

class Handset;

// An action cannot be carried out, as the part that it is for is not there now.
struct NoSuchPart : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What a scenario makes of one command or request.
struct CommandFault {
  bool no_answer = false;  // the command has no effect either
  ScenarioTime late{0};    // it runs that much later
  AnswerChange change;
};

// An argument that an action takes.
struct Argument {
  enum Kind {
    // Numbers.
    kByte,
    kCount,
    kOpcode,
    kSpeed,
    kMicroseconds,
    kHandle,
    kRecordBytes,
    kReport,
    kLinkEvent,
    kDirection,
    kActivityState,
    // Others.
    kTime,
    kHex,
    kAddress,
  };
  static constexpr int64_t kRequired = -1;

  Kind kind;
  int64_t otherwise = kRequired;  // number or ms that stands for it when it is left out
};

// The arguments of one step.
struct Arguments {
  uint32_t number = 0;  // the first number
  uint32_t second = 0;
  ScenarioTime time{0};
  Bytes bytes;

  uint8_t byte() const { return static_cast<uint8_t>(number); }
};

// A row of the table of actions: exactly one of change and act is set.
struct ActionType {
  using Change = std::function<void(CommandFault& fault, const Arguments& arguments)>;
  // Throws NoSuchPart.
  using Act = std::function<void(Handset& handset, const Arguments& arguments)>;
  // Whose answer can be changed: a command's, or also a request's to the co-processor.
  enum class Answer { kOfCommand, kOfAnything };

  ActionType(const char* action, std::vector<Argument> takes, Answer changes, Change how)
      : name(action), arguments(std::move(takes)), answer(changes), change(std::move(how)) {}
  ActionType(const char* action, std::vector<Argument> takes, Act what)
      : name(action), arguments(std::move(takes)), act(std::move(what)) {}

  const char* name;
  std::vector<Argument> arguments;  // those that may be left out come last
  Answer answer = Answer::kOfCommand;
  Change change;
  Act act;
};

// A step's action, with its arguments.
struct Action {
  const ActionType* type;
  Arguments arguments;
};

// Takes an action with its arguments from the line. Throws std::runtime_error with the reason.
Action ParseAction(Line& line, const std::vector<ActionType>& types);

}  // namespace zvk
