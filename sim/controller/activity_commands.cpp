#include "sim/controller/groups.h"

namespace zvk {
namespace {

constexpr uint16_t kReadActivityOpcode = 0xFD59;
constexpr uint8_t kCounters = 1;

Writer Read(ActivityCounters& activity) {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  Writer answer{status::kSuccess, kCounters};
  for (const ActivityCounters::Counters& counters : activity.Take()) {
    answer.U32(static_cast<uint32_t>(counters.entries))
        .U32(static_cast<uint32_t>(duration_cast<milliseconds>(counters.time).count()))
        .U64(static_cast<uint64_t>(counters.last_entry.count()))
        .Zeros(8);
  }
  return answer;
}

}  // namespace

void RegisterActivityCommands(Context& context, CommandTable* table) {
  table->Complete(kReadActivityOpcode, 1, [&context](ByteView p) {
    return p.size() == 1 && p[0] == kCounters ? Read(context.activity)
                                              : Writer{status::kInvalidParameters};
  });
}

}  // namespace zvk
