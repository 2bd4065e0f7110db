#include "sim/controller/hci_out.h"

#include "sim/wire.h"

namespace zvk {
namespace {

constexpr uint8_t kCredits = 1;  // the controller takes one command at a time

}  // namespace

void HciOut::ResetMasks() {
  mask_ = kDefaultMask;
  mask2_ = 0;
  le_mask_ = kDefaultLeMask;
}

void HciOut::SendEvent(uint8_t code, ByteView params) {
  sink_(PacketType::kEvent, Writer{code}.U8(static_cast<unsigned>(params.size())).Append(params));
}

void HciOut::Answer(uint8_t code, const Writer& params) {
  const AnswerChange change = change_.value_or(AnswerChange{});
  change_.reset();
  if (change.lost) return;
  for (int i = 0; i < (change.twice ? 2 : 1); ++i) {
    if (change.truncated) {
      const Writer whole =
          Writer{code}.U8(static_cast<unsigned>(params.bytes().size())).Append(params);
      sink_(PacketType::kEvent, ByteView(whole).Sub(0, whole.bytes().size() - 1));
    } else {
      SendEvent(code, params);
    }
  }
}

void HciOut::Complete(uint16_t opcode, ByteView return_parameters) {
  const AnswerChange change = change_.value_or(AnswerChange{});
  if (change.event_status) {
    Status(opcode, *change.event_status);
    return;
  }
  Bytes parameters = change.parameters.value_or(return_parameters.Copy());
  if (change.status && !parameters.empty()) parameters[0] = *change.status;
  Answer(event::kCommandComplete, Writer()
                                      .U8(change.credits.value_or(kCredits))
                                      .U16(change.opcode.value_or(opcode))
                                      .Append(parameters));
}

void HciOut::Status(uint16_t opcode, uint8_t status) {
  const AnswerChange change = change_.value_or(AnswerChange{});
  Answer(event::kCommandStatus, Writer()
                                    .U8(change.status.value_or(status))
                                    .U8(change.credits.value_or(kCredits))
                                    .U16(change.opcode.value_or(opcode)));
}

void HciOut::GrantCredits(uint8_t credits) {
  SendEvent(event::kCommandComplete, Writer().U8(credits).U16(0));
}

void HciOut::Event(uint8_t code, ByteView params) {
  const bool masked = code <= 0x40   ? ((mask_ >> (code - 1)) & 1) == 0
                      : code <= 0x80 ? ((mask2_ >> (code - 0x40)) & 1) == 0
                                     : false;
  if (code == event::kNumberOfCompletedPackets || !masked) SendEvent(code, params);
}

void HciOut::LeEvent(ByteView params) {
  if (LeEventEnabled(params[0])) Event(event::kLeMeta, params);
}

}  // namespace zvk
