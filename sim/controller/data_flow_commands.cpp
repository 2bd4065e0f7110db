#include "sim/controller/data_flow_commands.h"

namespace zvk {

void DataFlowCommands::Register(CommandTable* table) {
  table->Complete(0x0C31, 1, [this](ByteView p) {  // Set Controller To Host Flow Control
    if (p[0] > 3) return Writer{status::kInvalidParameters};
    flow_.SetHostFlowControl((p[0] & 1) != 0);
    return Writer{status::kSuccess};
  });
  table->Complete(0x0C33, 7, [this](ByteView p) {  // Host Buffer Size
    flow_.SetHostBuffers(p.U16(3));
    return Writer{status::kSuccess};
  });
  table->Complete(0x0C35, 1, [this](ByteView p) {  // Host Number Of Completed Packets
    if (p.size() != 1u + 4u * p[0]) return Writer{status::kInvalidParameters};
    for (size_t i = 0; i < p[0]; ++i) flow_.HostCompleted(p.U16(3 + 4 * i));
    return Writer();  // not answered when it is right
  });
}

}  // namespace zvk
