#include "tools/link/exchange.h"

#include "tools/base/failure.h"
#include "tools/hci/names.h"
#include "tools/hci/packet.h"

namespace bthalctl {

std::optional<CommandAnswer> AnswerIn(const Packet& event) {
  if (event.type != PacketType::kEvent) return std::nullopt;
  Reader in(event.bytes);
  const uint8_t code = in.U8();
  in.Skip(1);
  CommandAnswer answer;
  switch (code) {
    case event::kCommandComplete:
      in.Skip(1);
      answer.opcode = in.U16();
      answer.complete = true;
      answer.parameters = in.Rest();
      if (!answer.parameters.empty()) answer.status = answer.parameters.front();
      break;
    case event::kCommandStatus:
      answer.status = in.U8();
      in.Skip(1);
      answer.opcode = in.U16();
      break;
    case event::kLoopbackCommand:
      answer.opcode = in.U16();
      answer.status = 0;
      break;
    default:
      return std::nullopt;
  }
  if (!in.ok() || answer.opcode == 0) return std::nullopt;
  return answer;
}

CommandAnswer Exchange::Command(uint16_t opcode, const Bytes& parameters,
                                std::chrono::milliseconds timeout) {
  const TimePoint deadline = Clock::now() + timeout;
  link_.Send(CommandPacket(opcode, parameters));
  while (std::optional<Packet> packet = link_.Receive(deadline)) {
    std::optional<CommandAnswer> answer = AnswerIn(*packet);
    if (answer && answer->opcode == opcode) return *answer;
    if (!answer) others_.push_back(std::move(*packet));
  }
  throw Failure("no answer to " + OpcodeText(opcode) + " in " + std::to_string(timeout.count()) +
                " ms");
}

CommandAnswer Exchange::Demand(uint16_t opcode, const Bytes& parameters) {
  CommandAnswer answer = Command(opcode, parameters);
  if (answer.status != 0) {
    throw Failure(OpcodeText(opcode) + " failed: " + StatusText(answer.status));
  }
  return answer;
}

std::optional<Packet> Exchange::Next(TimePoint deadline) {
  if (!others_.empty()) {
    Packet packet = std::move(others_.front());
    others_.pop_front();
    return packet;
  }
  std::optional<Packet> packet;
  do {
    packet = link_.Receive(deadline);
  } while (packet && AnswerIn(*packet));
  return packet;
}

std::optional<Packet> Exchange::NextEvent(uint8_t code, TimePoint deadline,
                                          std::optional<uint8_t> subevent) {
  while (std::optional<Packet> packet = Next(deadline)) {
    if (packet->type != PacketType::kEvent) continue;
    Reader in(packet->bytes);
    if (in.U8() != code) continue;
    in.Skip(1);
    if (!subevent || in.U8() == *subevent) return packet;
  }
  return std::nullopt;
}

}  // namespace bthalctl
