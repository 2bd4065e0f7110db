#include "sim/scenario/scenario_runner.h"

namespace zvk {

ScenarioRunner::ScenarioRunner(EventLoop& loop, std::vector<Step> steps, Act act)
    : loop_(loop), steps_(std::move(steps)), act_(std::move(act)) {
  RunMatching(Trigger::Kind::kStart, 0, 0);
}

ScenarioRunner::~ScenarioRunner() {
  for (auto& [id, timer] : timers_) loop_.Cancel(&timer);
}

void ScenarioRunner::RunAfter(const Step& step) {
  const uint64_t id = ++last_timer_;
  timers_[id] = loop_.After(step.trigger.time, [this, id, &step] {
    timers_.erase(id);
    act_(step.action);
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
      act_(step.action);
    }
  }
  return fault;
}

}  // namespace zvk
