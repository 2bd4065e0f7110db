#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>

#include "tools/link/hci_link.h"

namespace bthalctl {

// The answer to a command.
struct CommandAnswer {
  uint16_t opcode = 0;
  bool complete = false;  // Command Complete; false: Command Status, or the command looped back
  uint8_t status = 0xFF;  // 0xFF, a failure, if the answer has none
  Bytes parameters;       // the return parameters of a Command Complete, status included
};

// Sends commands and finds their answers among everything that arrives. Used on one thread.
class Exchange {
 public:
  explicit Exchange(HciLink& link) : link_(link) {}

  HciLink& link() { return link_; }

  // Throws Failure when there is no answer in time.
  CommandAnswer Command(uint16_t opcode, const Bytes& parameters = {},
                        std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // As Command, and throws Failure when the status is an error.
  CommandAnswer Demand(uint16_t opcode, const Bytes& parameters = {});

  // The next packet that is no command's answer; nothing when there is none by deadline.
  std::optional<Packet> Next(TimePoint deadline);
  // The next event of this code (LE Meta: of this subevent), by deadline; others are dropped.
  std::optional<Packet> NextEvent(uint8_t code, TimePoint deadline,
                                  std::optional<uint8_t> subevent = {});

 private:
  HciLink& link_;
  std::deque<Packet> others_;  // arrived while an answer was awaited
};

// Whether event answers the command of this opcode.
std::optional<CommandAnswer> AnswerIn(const Packet& event);

}  // namespace bthalctl
