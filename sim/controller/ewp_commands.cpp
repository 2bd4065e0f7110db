#include "sim/controller/ewp_commands.h"

namespace zvk {
namespace {

constexpr uint16_t kEwpOpcode = 0xFE20;
constexpr uint8_t kSwitch = 0x14;
constexpr uint8_t kAllSources = 0xFF;

constexpr unsigned kEwpAclHandle = 0x2E00;  // 0xE00, first fragment
constexpr unsigned kEwpIsoHandle = 0x2D00;  // 0xD00, a complete one
constexpr size_t kEwpRecordBytes = 40;

}  // namespace

void EwpCommands::Register(CommandTable* table) {
  table->Complete(kEwpOpcode, 6, [this](ByteView p) { return Switch(p); });
}

void EwpCommands::Reset() {
  context_.loop.Cancel(&timer_);
  interval_ = 0;
}

Writer EwpCommands::Switch(ByteView params) {
  const bool on = params[1] == 1;
  const uint16_t interval = params.U16(4);
  if (params.size() != 6 || params[0] != kSwitch || params[1] > 1 || params[2] != kAllSources ||
      params[3] != 0 || on != (interval != 0)) {
    return {status::kInvalidParameters};
  }
  Reset();
  interval_ = interval;
  if (on) Next();
  return {status::kSuccess};
}

void EwpCommands::Next() {
  timer_ = context_.loop.After(std::chrono::milliseconds(interval_), [this] {
    Next();
    Record(PacketType::kAcl, kEwpRecordBytes);
  });
}

void EwpCommands::Record(PacketType type, size_t bytes) {
  const auto uptime =
      std::chrono::duration_cast<std::chrono::milliseconds>(EventLoop::Clock::now() - start_);
  Writer record;
  record.U32(records_++).U32(static_cast<uint32_t>(uptime.count()));
  for (unsigned i = 0; record.bytes().size() < bytes; ++i) record.U8(i & 0xFF);
  context_.out.Data(type, Writer()
                              .U16(type == PacketType::kIso ? kEwpIsoHandle : kEwpAclHandle)
                              .U16(static_cast<unsigned>(bytes))
                              .Append(ByteView(record).Sub(0, bytes)));
}

}  // namespace zvk
