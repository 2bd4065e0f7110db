#include "sim/scenario/scenario_runner.h"

#include <iterator>
#include <stdexcept>
#include <utility>

namespace zvk {
namespace {

constexpr size_t kMostAdded = 10000;  // steps

}  // namespace

ScenarioRunner::ScenarioRunner(EventLoop& loop, std::vector<Step> steps, Act act)
    : loop_(loop),
      steps_(std::make_move_iterator(steps.begin()), std::make_move_iterator(steps.end())),
      act_(std::move(act)) {
  RunMatching(Trigger::Kind::kStart, 0, 0);
}

ScenarioRunner::~ScenarioRunner() {
  for (auto& [id, timer] : timers_) loop_.Cancel(&timer);
}

void ScenarioRunner::Add(Step step) {
  const bool timed = step.trigger.kind == Trigger::Kind::kStart;
  if (timed && step.trigger.time == ScenarioTime::zero()) {
    act_(step.action);
    return;
  }
  if (added_ == kMostAdded) throw std::runtime_error("too many steps were added");
  ++added_;
  step.trigger.since = CountOf(step.trigger);
  steps_.push_back(std::move(step));
  if (timed) RunAfter(steps_.back());
}

uint32_t ScenarioRunner::CountOf(const Trigger& trigger) {
  switch (trigger.kind) {
    case Trigger::Kind::kCommand:
      return commands_[trigger.opcode];
    case Trigger::Kind::kAnswered:
      return answered_[trigger.opcode];
    case Trigger::Kind::kRequest:
      return requests_[static_cast<CoRequest>(trigger.opcode)];
    case Trigger::Kind::kPower:
      return power_ons_;
    case Trigger::Kind::kStart:
      return 0;
  }
  return 0;
}

void ScenarioRunner::Run(const Action& action) {
  try {
    act_(action);
  } catch (const NoSuchPart&) {
  }
}

void ScenarioRunner::RunAfter(const Step& step) {
  const uint64_t id = ++last_timer_;
  timers_[id] = loop_.After(step.trigger.time, [this, id, &step] {
    timers_.erase(id);
    Run(step.action);
  });
}

void ScenarioRunner::RunMatching(Trigger::Kind kind, uint16_t opcode, uint32_t count) {
  for (const Step& step : steps_) {
    const Trigger& trigger = step.trigger;
    if (trigger.kind == kind && trigger.opcode == opcode && trigger.Counts(count)) RunAfter(step);
  }
}

void ScenarioRunner::OnPowerOn() { RunMatching(Trigger::Kind::kPower, 0, ++power_ons_); }

void ScenarioRunner::OnAnswered(uint16_t opcode) {
  RunMatching(Trigger::Kind::kAnswered, opcode, ++answered_[opcode]);
}

CommandFault ScenarioRunner::OnCommand(uint16_t opcode) {
  return FaultOf(Trigger::Kind::kCommand, opcode, ++commands_[opcode]);
}

CommandFault ScenarioRunner::OnRequest(CoRequest request) {
  return FaultOf(Trigger::Kind::kRequest, static_cast<uint16_t>(request), ++requests_[request]);
}

CommandFault ScenarioRunner::FaultOf(Trigger::Kind kind, uint16_t opcode, uint32_t count) {
  CommandFault fault;
  for (const Step& step : steps_) {
    const Trigger& trigger = step.trigger;
    if (trigger.kind != kind || trigger.opcode != opcode || !trigger.Counts(count)) continue;
    if (step.action.type->change) {
      step.action.type->change(fault, step.action.arguments);
    } else {
      Run(step.action);
    }
  }
  return fault;
}

}  // namespace zvk
