#include "sim/co_processor/co_actions.h"

namespace zvk {

void ActOnCoProcessor(const Action& action, std::mt19937& random, CoProcessor& co_processor) {
  switch (action.kind) {
    case Action::Kind::kCoAbsent:
      co_processor.Leave(action.time);
      break;
    case Action::Kind::kCoDisconnect:
      co_processor.Disconnect();
      break;
    case Action::Kind::kCoGarbage: {
      Bytes garbage(action.number);
      for (uint8_t& byte : garbage) byte = static_cast<uint8_t>(random());
      co_processor.SendRaw(garbage);
      break;
    }
    case Action::Kind::kCoTable:
      co_processor.SendTable(action.number, action.bytes);
      break;
    case Action::Kind::kCoEvent:
      co_processor.SendEvent(static_cast<int>(action.number), action.bytes);
      break;
    case Action::Kind::kCoTruncated:
      co_processor.SendTruncatedEvent();
      break;
    default:
      break;
  }
}

}  // namespace zvk
