#include "sim/handset/controller_actions.h"

#include <algorithm>

#include "sim/controller/quality_reports.h"
#include "sim/wire.h"

namespace zvk {
namespace {

constexpr uint16_t kTraceHandle = 0x0040;

}  // namespace

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
    case Action::Kind::kQuality:
      controller.out().Event(event::kVendor,
                             LinkQualityReport(byte, static_cast<uint16_t>(action.second),
                                               controller.chip().vendor_version));
      break;
    case Action::Kind::kLatencyTrace:
      controller.out().Event(
          event::kVendor, LatencyTrace(kTraceHandle, byte, std::min(action.number, action.second)));
      break;
    case Action::Kind::kLinkLayer: {
      Address address;
      std::copy_n(action.bytes.begin(), address.size(), address.begin());
      controller.ccc().OnLinkLayer(address, byte,
                                   static_cast<CccCommands::Direction>(action.second), 0);
      break;
    }
    case Action::Kind::kToggle:
      controller.ccc().Toggle(action.number);
      break;
    case Action::Kind::kEwp:
      controller.ewp().Record(PacketType::kAcl, action.number);
      break;
    case Action::Kind::kEwpIso:
      controller.ewp().Record(PacketType::kIso, action.number);
      break;
    case Action::Kind::kActivity:
      controller.activity().Add(static_cast<ActivityCounters::State>(action.number), action.second,
                                action.time);
      break;
    default:
      break;
  }
}

}  // namespace zvk
