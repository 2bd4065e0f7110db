#include "sim/controller/activity_commands.h"

namespace zvk {
namespace {

constexpr uint16_t kReadActivityOpcode = 0xFD59;
constexpr uint8_t kCounters = 1;

}  // namespace

void ActivityCommands::Register(CommandTable* table) {
  table->Complete(kReadActivityOpcode, 1, [this](ByteView p) {
    return p.size() == 1 && p[0] == kCounters ? Read() : Writer{status::kInvalidParameters};
  });
}

Writer ActivityCommands::Read() {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  Writer answer{status::kSuccess, kCounters};
  for (const ActivityCounters::Counters& counters : context_.activity.Take()) {
    answer.U32(static_cast<uint32_t>(counters.entries))
        .U32(static_cast<uint32_t>(duration_cast<milliseconds>(counters.time).count()))
        .U64(static_cast<uint64_t>(counters.last_entry.count()))
        .Zeros(8);
  }
  return answer;
}

}  // namespace zvk
