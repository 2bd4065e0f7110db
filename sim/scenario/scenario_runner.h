#pragma once

#include <deque>
#include <functional>
#include <map>
#include <vector>

#include "sim/base/event_loop.h"
#include "sim/scenario/scenario.h"

namespace zvk {

// Plays a scenario: the handset reports what happens, and the runner carries out the steps that are
// due. An action for a part that is not there at that moment does nothing.
class ScenarioRunner {
 public:
  // Throws NoSuchPart.
  using Act = std::function<void(const Action& action)>;
  ScenarioRunner(EventLoop& loop, std::vector<Step> steps, Act act);
  ~ScenarioRunner();

  // One more step, which counts and measures from now on; it is carried out before this returns if
  // it is due at once. Throws std::runtime_error with a one-line reason.
  void Add(Step step);

  void OnPowerOn();
  CommandFault OnCommand(uint16_t opcode);
  CommandFault OnRequest(CoRequest request);
  void OnAnswered(uint16_t opcode);

 private:
  CommandFault FaultOf(Trigger::Kind kind, uint16_t opcode, uint32_t count);
  uint32_t CountOf(const Trigger& trigger);
  void Run(const Action& action);
  void RunAfter(const Step& step);
  void RunMatching(Trigger::Kind kind, uint16_t opcode, uint32_t count);

  EventLoop& loop_;
  std::deque<Step> steps_;  // they stay where they are
  size_t added_ = 0;
  const Act act_;
  std::map<uint16_t, uint32_t> commands_;  // seen so far, by opcode
  std::map<uint16_t, uint32_t> answered_;
  std::map<CoRequest, uint32_t> requests_;
  uint32_t power_ons_ = 0;
  std::map<uint64_t, EventLoop::TimerId> timers_;
  uint64_t last_timer_ = 0;
};

}  // namespace zvk
