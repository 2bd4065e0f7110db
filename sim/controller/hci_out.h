#pragma once

#include <functional>
#include <optional>

#include "sim/wire.h"

namespace zvk {

// What a fault makes of the answer to one command.
struct AnswerChange {
  std::optional<uint16_t> opcode;
  std::optional<uint8_t> status;
  std::optional<uint8_t> credits;
  std::optional<Bytes> parameters;      // return parameters of Command Complete, status first
  std::optional<uint8_t> event_status;  // Command Status with it instead of Command Complete
  bool truncated = false;               // the last byte is missing, the length byte unchanged
  bool twice = false;
  bool lost = false;  // it is not sent
};

// The controller's way to the host: builds events, keeps to the event masks that the host has set.
class HciOut {
 public:
  // packet is without the type byte and lives for the call.
  using Sink = std::function<void(PacketType type, ByteView packet)>;
  explicit HciOut(Sink sink) : sink_(std::move(sink)) {}

  // Command Complete; return_parameters begin with the status.
  void Complete(uint16_t opcode, ByteView return_parameters);
  // Command Status.
  void Status(uint16_t opcode, uint8_t status);
  // Command Complete for no command: it only grants credits.
  void GrantCredits(uint8_t credits);
  // Applies to the next answer.
  void ChangeAnswer(const AnswerChange& change) { change_ = change; }

  // An event, unless the host has masked it.
  void Event(uint8_t code, ByteView params);
  // params begin with the subevent code.
  void LeEvent(ByteView params);
  // An ACL, SCO or ISO packet.
  void Data(PacketType type, ByteView packet) { sink_(type, packet); }

  // Bit n is the event with code n + 1 (LE: subevent code n + 1).
  void SetMask(uint64_t mask) { mask_ = mask; }
  void SetMask2(uint64_t mask) { mask2_ = mask; }
  void SetLeMask(uint64_t mask) { le_mask_ = mask; }
  bool LeEventEnabled(uint8_t subevent) const { return ((le_mask_ >> (subevent - 1)) & 1) != 0; }
  void ResetMasks();

 private:
  void Answer(uint8_t code, const Writer& params);
  void SendEvent(uint8_t code, ByteView params);

  static constexpr uint64_t kDefaultMask = 0x00001FFFFFFFFFFF;
  static constexpr uint64_t kDefaultLeMask = 0x1F;

  const Sink sink_;
  std::optional<AnswerChange> change_;
  uint64_t mask_ = kDefaultMask;
  uint64_t mask2_ = 0;
  uint64_t le_mask_ = kDefaultLeMask;
};

}  // namespace zvk
