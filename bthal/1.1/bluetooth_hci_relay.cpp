// The packets that BluetoothHci passes on in both directions.
#define LOG_TAG "bthal.zvkbtlinux"

#include <android-base/stringprintf.h>
#include <log/log.h>

#include "bluetooth_Activity.h"
#include "bluetooth_ewp.h"
#include "bluetooth_hci.h"
#include "debug_central.h"
#include "stack/attached_stack.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {
namespace {

using activity::BtActivitiesLogger;
using ::android::base::StringPrintf;
using debug::AnchorFormatter;
using debug::AnchorValues;
using debug::DebugCentral;
using ::hardware::nuvexa::bluetooth::ewp::V1_0::implementation::BluetoothEwp;

// The count shown includes the packet type byte.
uint32_t ShownSize(const hidl_vec<uint8_t>& packet) {
  return static_cast<uint32_t>(packet.size() + 1);
}

std::string CommandText(const AnchorValues& v) {
  return StringPrintf("sendHciCommand: 0x%02X%02X - %u bytes", v[0], v[1], v[2]);
}
template <const char* kOperation>
std::string SizeText(const AnchorValues& v) {
  return StringPrintf("%s: %u bytes", kOperation, v[0]);
}
constexpr char kSendAcl[] = "sendAclData";
constexpr char kSendSco[] = "sendScoData";
constexpr char kSendIso[] = "sendIsoData";
constexpr char kEventReceived[] = "cb->hciEventReceived";
constexpr char kAclReceived[] = "cb->aclDataReceived";
constexpr char kScoReceived[] = "cb->scoDataReceived";
constexpr char kIsoReceived[] = "cb->isoDataReceived";

// Records a packet of the controller, and has call hand it to the attached stack. kind names it in
// the lines that tell why the stack did not get it.
template <typename Call>
void Relay(const char* kind, AnchorType type, AnchorFormatter text, const hidl_vec<uint8_t>& packet,
           const Call& call) {
  const AttachedStack::Callbacks1_0 cb = AttachedStack::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("%s: g_cb == nullptr", kind);
    return;
  }
  const evidence::ScopedRecord anchor(type, text, {static_cast<uint32_t>(packet.size())});
  if (!call(*cb)) ALOGW("Unable to callback %s to Stack", kind);
}

}  // namespace

void BluetoothHci::SendPacket(hci::HciPacketType type, const hidl_vec<uint8_t>& packet) {
  const std::shared_ptr<hci::HciFlowControl> handle = lifecycle_.hci_handle();
  if (handle == nullptr) return;
  if (!hci::LengthIsRight(type, packet.data(), packet.size())) {
    ALOGW("%s: a packet of type %d with %zu bytes does not have the length in its header, dropped",
          __func__, type, packet.size());
    return;
  }
  if (type == hci::HCI_PACKET_TYPE_COMMAND &&
      DebugCentral::Get().IsControllerDebugDumpOpcode(packet)) {
    handle->SendNoAck(type, packet.data(), packet.size());
  } else {
    handle->Send(type, packet.data(), packet.size());
  }
}

Return<void> BluetoothHci::sendHciCommand(const hidl_vec<uint8_t>& packet) {
  const evidence::ScopedRecord anchor(
      AnchorType::kSendHciCommand, CommandText,
      {hci::ByteAt(packet, 1), hci::ByteAt(packet, 0), ShownSize(packet)});
  activity::BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_COMMAND, packet);
  SendPacket(hci::HCI_PACKET_TYPE_COMMAND, packet);
  return Void();
}

Return<void> BluetoothHci::sendAclData(const hidl_vec<uint8_t>& packet) {
  const evidence::ScopedRecord anchor(AnchorType::kSendAclData, SizeText<kSendAcl>,
                                      {ShownSize(packet)});
  SendPacket(hci::HCI_PACKET_TYPE_ACL_DATA, packet);
  return Void();
}

Return<void> BluetoothHci::sendScoData(const hidl_vec<uint8_t>& packet) {
  const evidence::ScopedRecord anchor(AnchorType::kSendScoData, SizeText<kSendSco>,
                                      {ShownSize(packet)});
  SendPacket(hci::HCI_PACKET_TYPE_SCO_DATA, packet);
  return Void();
}

Return<void> BluetoothHci::sendIsoData(const hidl_vec<uint8_t>& packet) {
  const evidence::ScopedRecord anchor(AnchorType::kSendIsoData, SizeText<kSendIso>,
                                      {ShownSize(packet)});
  SendPacket(hci::HCI_PACKET_TYPE_ISO_DATA, packet);
  return Void();
}

// The four functions that the transport calls for the controller's packets, on the reader thread.

void BluetoothHci::OnEvent(const hidl_vec<uint8_t>& event) {
  Relay("hciEvent", AnchorType::kHciEventReceived, SizeText<kEventReceived>, event,
        [&](V1_0::IBluetoothHciCallbacks& cb) {
          BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_EVENT, event);
          return cb.hciEventReceived(event).isOk();
        });
}

void BluetoothHci::OnAclData(const hidl_vec<uint8_t>& data) {
  Relay("aclData", AnchorType::kAclDataReceived, SizeText<kAclReceived>, data,
        [&](V1_0::IBluetoothHciCallbacks& cb) {
          BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_ACL_DATA, data);
          BluetoothEwp::PrintEwpLogging(BluetoothEwp::kAclData, data);
          return cb.aclDataReceived(data).isOk();
        });
}

void BluetoothHci::OnScoData(const hidl_vec<uint8_t>& data) {
  Relay("scoData", AnchorType::kScoDataReceived, SizeText<kScoReceived>, data,
        [&](V1_0::IBluetoothHciCallbacks& cb) { return cb.scoDataReceived(data).isOk(); });
}

void BluetoothHci::OnIsoData(const hidl_vec<uint8_t>& data) {
  Relay("isoData", AnchorType::kIsoDataReceived, SizeText<kIsoReceived>, data,
        [&](V1_0::IBluetoothHciCallbacks&) {
          BluetoothEwp::PrintEwpLogging(BluetoothEwp::kIsoData, data);
          // Null for a stack that attached through 1.0, which knows no ISO data.
          const AttachedStack::Callbacks1_1 cb = AttachedStack::Get().g_cb_1_1();
          return cb != nullptr && cb->isoDataReceived(data).isOk();
        });
}

// Takes the events that the diagnostics make themselves.
void BluetoothHci::notify_cb(const hidl_vec<uint8_t>& event) {
  const AttachedStack::Callbacks1_0 cb = AttachedStack::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("%s: g_cb == nullptr", __func__);
    return;
  }
  // Not before the stack has taken it may the process end.
  if (!cb->hciEventReceived(event).isOk() || !cb->ping().isOk()) {
    ALOGW("Unable to callback bqr root inflamed event to Stack");
  }
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
