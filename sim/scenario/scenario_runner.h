#pragma once

#include <functional>
#include <map>
#include <vector>

#include "sim/base/event_loop.h"
#include "sim/scenario/scenario.h"

namespace zvk {

// Plays a scenario: the handset reports what happens, and the runner carries out the steps that are
// due.
class ScenarioRunner {
 public:
  using Act = std::function<void(const Action& action)>;
  ScenarioRunner(EventLoop& loop, std::vector<Step> steps, Act act);
  ~ScenarioRunner();

  void OnPowerOn();
  CommandFault OnCommand(uint16_t opcode);
  CommandFault OnRequest(CoRequest request);
  void OnAnswered(uint16_t opcode);

 private:
  CommandFault FaultOf(Trigger::Kind kind, uint16_t opcode, uint32_t count);
  void RunAfter(const Step& step);
  void RunMatching(Trigger::Kind kind, uint16_t opcode, uint32_t count);

  EventLoop& loop_;
  const std::vector<Step> steps_;
  const Act act_;
  std::map<uint16_t, uint32_t> commands_;  // seen so far, by opcode
  std::map<uint16_t, uint32_t> answered_;
  std::map<CoRequest, uint32_t> requests_;
  uint32_t power_ons_ = 0;
  std::map<uint64_t, EventLoop::TimerId> timers_;
  uint64_t last_timer_ = 0;
};

}  // namespace zvk
