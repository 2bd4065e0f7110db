#include "sim/controller/loopback_commands.h"

#include <algorithm>

#include "sim/base/log.h"
#include "sim/wire.h"

namespace zvk {
namespace {

constexpr uint16_t kReadMode = 0x1801;
constexpr uint16_t kWriteMode = 0x1802;
constexpr uint16_t kAclHandle = 0x0001;
constexpr uint16_t kScoHandle = 0x0002;
constexpr size_t kEventBytes = 255;

// Executed in local loopback as ever: Reset, the flow control commands, Read Buffer Size, and the
// loopback mode's own.
constexpr uint16_t kExecuted[] = {0x0C03, 0x0C31, 0x0C33, 0x0C35, 0x1005, kReadMode, kWriteMode};

}  // namespace

void LoopbackCommands::Register(CommandTable* table) {
  table->Complete(kReadMode, 0,
                  [this](ByteView) { return Writer{status::kSuccess}.U8(local_ ? 1 : 0); });
  table->Complete(kWriteMode, 1, [this](ByteView p) { return WriteMode(p); });
}

Writer LoopbackCommands::WriteMode(ByteView params) {
  if (params[0] > 1) return {status::kInvalidParameters};  // no remote loopback
  const bool on = params[0] == 1;
  if (on == local_) return {status::kSuccess};
  local_ = on;
  const Address address = context_.chip.CurrentAddress();
  for (const uint16_t handle : {kAclHandle, kScoHandle}) {
    if (on) {
      context_.out.Event(event::kConnectionComplete,
                         Writer{status::kSuccess}
                             .U16(handle)
                             .Append(address)
                             .U8(handle == kAclHandle ? 1 : 0)  // link type
                             .U8(0));                           // not encrypted
    } else {
      flow_.Forget(handle);
      context_.out.Event(event::kDisconnectionComplete,
                         Writer{status::kSuccess}.U16(handle).U8(status::kTerminatedByHost));
    }
  }
  return {status::kSuccess};
}

bool LoopbackCommands::Takes(uint16_t opcode) const {
  return local_ &&
         std::find(std::begin(kExecuted), std::end(kExecuted), opcode) == std::end(kExecuted);
}

// A command that does not fit into an event is cut.
void LoopbackCommands::OnCommand(ByteView packet) {
  context_.out.Event(event::kLoopbackCommand, packet.Sub(0, kEventBytes));
}

void LoopbackCommands::OnData(PacketType type, ByteView packet) {
  const uint16_t handle = packet.U16(0) & 0x0FFF;
  if (type == PacketType::kIso) {
    if (flow_.Take(DataFlow::Buffer::kIso, handle)) context_.out.Data(type, packet);
  } else if (type == PacketType::kSco && handle == kScoHandle) {
    context_.out.Data(type, packet);  // synchronous data has no flow control
  } else if (type == PacketType::kAcl && handle == kAclHandle) {
    if (flow_.Take(DataFlow::Buffer::kAcl, handle)) flow_.SendAcl(packet);
  } else {
    Log("loopback: data for handle 0x%03X, which is no connection", handle);
  }
}

}  // namespace zvk
