#pragma once

#include <memory>
#include <vector>

#include "sim/controller/bring_up_commands.h"
#include "sim/controller/ccc_commands.h"
#include "sim/controller/command_group.h"
#include "sim/controller/command_table.h"
#include "sim/controller/connection_commands.h"
#include "sim/controller/context.h"
#include "sim/controller/data_flow.h"
#include "sim/controller/debug_commands.h"
#include "sim/controller/ewp_commands.h"
#include "sim/controller/le_state.h"
#include "sim/controller/loopback_commands.h"
#include "sim/controller/radio_limit_commands.h"

namespace zvk {

// The controller from power-on (or the start of a loaded firmware) until it loses power: takes
// whole packets from the host, answers through BoardPort. Whoever owns it destroys it to cut the
// power; nothing survives except what ChipState is built from next time.
class Controller {
 public:
  Controller(EventLoop& loop, std::mt19937& random, BoardPort board, const ChipState& chip);
  ~Controller();

  void OnPacket(PacketType type, ByteView packet);
  // change applies to this command's answer.
  void OnCommand(ByteView packet, const AnswerChange& change);
  // The framing of the host's bytes was lost.
  void OnLostSync(uint8_t bad);
  // Everything that the host has written so far has been taken.
  void EndOfInput() { flow_.Complete(); }

  const ChipState& chip() const { return chip_; }
  HciOut& out() { return out_; }
  ActivityCounters& activity() { return activity_; }
  DebugCommands& debug() { return *debug_; }
  CccCommands& ccc() { return *ccc_; }
  EwpCommands& ewp() { return *ewp_; }
  const RadioLimitCommands& radio_limits() const { return *radio_limits_; }

 private:
  // answer_given: a scenario's return parameters replace those of Command Complete.
  void Run(uint16_t opcode, ByteView params, bool answer_given);
  bool Known(uint16_t opcode) const;
  bool NeedsPatch(uint16_t opcode) const;
  void Reset();
  void Own(std::unique_ptr<CommandGroup> group);
  template <typename Group, typename... Arguments>
  Group* Add(Arguments&&... arguments);

  BoardPort board_;
  ChipState chip_;
  HciOut out_;
  ActivityCounters activity_;
  std::vector<std::function<void()>> after_answer_;
  Context context_;
  DataFlow flow_;
  LeState le_;
  CommandTable table_;
  std::vector<std::unique_ptr<CommandGroup>> groups_;
  // Owned by groups_.
  BringUpCommands* bring_up_;
  DebugCommands* debug_;
  CccCommands* ccc_;
  EwpCommands* ewp_;
  RadioLimitCommands* radio_limits_;
  ConnectionCommands* connections_;
  LoopbackCommands* loopback_;
};

}  // namespace zvk
