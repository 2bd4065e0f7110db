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
using debug::AnchorType;
using debug::AnchorValues;
using debug::DebugCentral;
using ::hardware::nuvexa::bluetooth::ewp::V1_0::implementation::BluetoothEwp;

// Kinds of packets, as PrintEwpLogging() takes them.
constexpr int kEwpAcl = 1;
constexpr int kEwpIso = 2;

// The count shown includes the packet type byte.
uint32_t ShownSize(const hidl_vec<uint8_t>& packet) {
  return static_cast<uint32_t>(packet.size() + 1);
}

std::string CommandText(const AnchorValues& v) {
  return StringPrintf("sendHciCommand: 0x%02X%02X - %u bytes", v[0], v[1], v[2]);
}
std::string AclText(const AnchorValues& v) { return StringPrintf("sendAclData: %u bytes", v[0]); }
std::string ScoText(const AnchorValues& v) { return StringPrintf("sendScoData: %u bytes", v[0]); }
std::string IsoText(const AnchorValues& v) { return StringPrintf("sendIsoData: %u bytes", v[0]); }

std::string EventInText(const AnchorValues& v) {
  return StringPrintf("cb->hciEventReceived: %u bytes", v[0]);
}
std::string AclInText(const AnchorValues& v) {
  return StringPrintf("cb->aclDataReceived: %u bytes", v[0]);
}
std::string ScoInText(const AnchorValues& v) {
  return StringPrintf("cb->scoDataReceived: %u bytes", v[0]);
}
std::string IsoInText(const AnchorValues& v) {
  return StringPrintf("cb->isoDataReceived: %u bytes", v[0]);
}

AnchorValues SizeOf(const hidl_vec<uint8_t>& packet) {
  return {static_cast<uint32_t>(packet.size())};
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
  const evidence::ScopedRecord anchor(AnchorType::kSendAclData, AclText, {ShownSize(packet)});
  SendPacket(hci::HCI_PACKET_TYPE_ACL_DATA, packet);
  return Void();
}

Return<void> BluetoothHci::sendScoData(const hidl_vec<uint8_t>& packet) {
  const evidence::ScopedRecord anchor(AnchorType::kSendScoData, ScoText, {ShownSize(packet)});
  SendPacket(hci::HCI_PACKET_TYPE_SCO_DATA, packet);
  return Void();
}

Return<void> BluetoothHci::sendIsoData(const hidl_vec<uint8_t>& packet) {
  const evidence::ScopedRecord anchor(AnchorType::kSendIsoData, IsoText, {ShownSize(packet)});
  SendPacket(hci::HCI_PACKET_TYPE_ISO_DATA, packet);
  return Void();
}

// The four functions that the transport calls for the controller's packets, on the reader thread.

void BluetoothHci::OnEvent(const hidl_vec<uint8_t>& event) {
  const AttachedStack::Callbacks1_0 cb = AttachedStack::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("hciEvent: g_cb == nullptr");
    return;
  }
  const evidence::ScopedRecord anchor(AnchorType::kHciEventReceived, EventInText, SizeOf(event));
  BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_EVENT, event);
  if (!cb->hciEventReceived(event).isOk()) ALOGW("Unable to callback hciEvent to Stack");
}

void BluetoothHci::OnAclData(const hidl_vec<uint8_t>& data) {
  const AttachedStack::Callbacks1_0 cb = AttachedStack::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("aclData: g_cb == nullptr");
    return;
  }
  const evidence::ScopedRecord anchor(AnchorType::kAclDataReceived, AclInText, SizeOf(data));
  BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_ACL_DATA, data);
  BluetoothEwp::PrintEwpLogging(kEwpAcl, data);
  if (!cb->aclDataReceived(data).isOk()) ALOGW("Unable to callback aclData to Stack");
}

void BluetoothHci::OnScoData(const hidl_vec<uint8_t>& data) {
  const AttachedStack::Callbacks1_0 cb = AttachedStack::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("scoData: g_cb == nullptr");
    return;
  }
  const evidence::ScopedRecord anchor(AnchorType::kScoDataReceived, ScoInText, SizeOf(data));
  if (!cb->scoDataReceived(data).isOk()) ALOGW("Unable to callback scoData to Stack");
}

void BluetoothHci::OnIsoData(const hidl_vec<uint8_t>& data) {
  if (AttachedStack::Get().g_cb() == nullptr) {
    ALOGW("isoData: g_cb == nullptr");
    return;
  }
  const evidence::ScopedRecord anchor(AnchorType::kIsoDataReceived, IsoInText, SizeOf(data));
  BluetoothEwp::PrintEwpLogging(kEwpIso, data);
  // Null for a stack that attached through 1.0, which knows no ISO data.
  const AttachedStack::Callbacks1_1 cb = AttachedStack::Get().g_cb_1_1();
  if (cb == nullptr || !cb->isoDataReceived(data).isOk()) {
    ALOGW("Unable to callback isoData to Stack");
  }
}

// Takes the events that the diagnostics make themselves.
void BluetoothHci::notify_cb(const hidl_vec<uint8_t>& event) {
  const AttachedStack::Callbacks1_0 cb = AttachedStack::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("%s: g_cb == nullptr", __func__);
    return;
  }
  if (!cb->hciEventReceived(event).isOk()) {
    ALOGW("Unable to callback bqr root inflamed event to Stack");
  }
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
