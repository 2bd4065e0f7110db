#include "sim/handset/controller_actions.h"

namespace zvk {

void ActOnController(const Action& action, Controller& controller) {
  const auto byte = static_cast<uint8_t>(action.number);
  switch (action.kind) {
    case Action::Kind::kGrant:
      controller.out().GrantCredits(byte);
      break;
    case Action::Kind::kCrash:
      controller.debug().Crash(byte, static_cast<uint8_t>(action.second));
      break;
    case Action::Kind::kDebugInfo:
      controller.debug().DebugInfo(action.number);
      break;
    case Action::Kind::kSocDump:
      controller.debug().SocDump(action.number);
      break;
    case Action::Kind::kChreDump:
      controller.debug().ChreDump(action.number);
      break;
    default:
      break;
  }
}

}  // namespace zvk
