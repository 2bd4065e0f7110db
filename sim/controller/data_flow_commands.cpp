#include "sim/controller/data_flow.h"
#include "sim/controller/groups.h"

namespace zvk {

void RegisterDataFlowCommands(DataFlow& flow, CommandTable* table) {
  table->Complete(0x0C31, 1, [&flow](ByteView p) {  // Set Controller To Host Flow Control
    if (p[0] > 3) return Writer{status::kInvalidParameters};
    flow.SetHostFlowControl((p[0] & 1) != 0);
    return Writer{status::kSuccess};
  });
  table->Complete(0x0C33, 7, [&flow](ByteView p) {  // Host Buffer Size
    flow.SetHostBuffers(p.U16(3));
    return Writer{status::kSuccess};
  });
  table->Complete(0x0C35, 1, [&flow](ByteView p) {  // Host Number Of Completed Packets
    if (p.size() != 1u + 4u * p[0]) return Writer{status::kInvalidParameters};
    for (size_t i = 0; i < p[0]; ++i) flow.HostCompleted(p.U16(3 + 4 * i));
    return Writer();  // not answered when it is right
  });
}

}  // namespace zvk
