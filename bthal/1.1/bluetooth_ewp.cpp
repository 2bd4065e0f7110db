#define LOG_TAG "bthal.ewp"

#include "bluetooth_ewp.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include <algorithm>
#include <string>
#include <vector>

#include "hci/packet.h"

namespace hardware::nuvexa::bluetooth::ewp::V1_0::implementation {

using ::android::base::StringPrintf;

namespace {

constexpr uint16_t kOpcodeEwp = 0xFE20;
constexpr size_t kHeaderSize = 4;
constexpr size_t kBytesPerLine = 32;

// ACL: handle 0xE00; ISO: 0xD00 to 0xEFF. Other kinds are not filtered.
bool IsEwpHandle(int kind, uint16_t handle) {
  if (kind == BluetoothEwp::kAclData) return handle == 0xE00;
  if (kind == BluetoothEwp::kIsoData) return handle >= 0xD00 && handle <= 0xEFF;
  return true;
}

}  // namespace

BluetoothEwp::BluetoothEwp() : Extension(LOG_TAG, kOpcodeEwp) {}

void BluetoothEwp::Switch(hci::HciFlowControl& flow, const char* operation, bool on,
                          uint16_t interval) {
  evidence::Record(AnchorType::kEwp, operation);
  const uint8_t params[] = {
      0x14, static_cast<uint8_t>(on),       0xFF,
      0x00, static_cast<uint8_t>(interval), static_cast<uint8_t>(interval >> 8)};
  const std::vector<uint8_t> command = hci::BuildCommand(kOpcodeEwp, sizeof params, params);
  LOG(INFO) << operation << ": " << Shared().pending() << " Sending VSC <"
            << toString(hidl_vec<uint8_t>(command)) << ">";
  Shared().SendCommand(flow, command);
}

Return<void> BluetoothEwp::EnableEwp(uint16_t interval) {
  const auto flow = Shared().flow();
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Unable to enable EWP logging.";
  } else {
    Switch(*flow, __func__, true, interval);
  }
  return Void();
}

Return<void> BluetoothEwp::DisableEwp() {
  const auto flow = Shared().flow();
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Unable to disable EWP logging.";
  } else {
    Switch(*flow, __func__, false, 0);
  }
  return Void();
}

bool BluetoothEwp::OnEventReceive(const hidl_vec<uint8_t>& event) {
  const uint8_t status = hci::CommandCompleteStatus(event);
  LOG(status == 0 ? ::android::base::INFO : ::android::base::WARNING)
      << __func__ << ": (" << pending() << ") Recv " << (status == 0 ? "Success" : "Failure")
      << " Opcode=" << StringPrintf("0x%04x", hci::Le16At(event, 3))
      << ", Status=" << StringPrintf("0x%02x", status) << " VSE <" << toString(event) << ">";
  return TakePending();
}

bool BluetoothEwp::PrintEwpLogging(int kind, const hidl_vec<uint8_t>& packet) {
  const uint16_t handle = hci::Le16At(packet, 0) & 0x0FFF;
  if (!IsEwpHandle(kind, handle)) return false;
  const uint16_t length = hci::Le16At(packet, 2);
  const size_t present = packet.size() - std::min(packet.size(), kHeaderSize);
  const size_t size = std::min<size_t>(length, present);
  std::string text = StringPrintf("Handle=0x%03x, LEN=%d]{DATA=", handle, length);
  size_t offset = 0;
  do {
    const size_t end = std::min(offset + kBytesPerLine, size);
    for (size_t i = offset; i < end; ++i) {
      text += StringPrintf(i == 0 ? "x%02x" : " x%02x", packet[kHeaderSize + i]);
      if (i + 1 < end) text += ",";
    }
    LOG(WARNING) << StringPrintf(" [BT_EWP_DUMP] 0x%03zx : [", offset) << text
                 << (end == size ? "}" : "]");
    text.clear();
    offset = end;
  } while (offset < size);
  return true;
}

}  // namespace hardware::nuvexa::bluetooth::ewp::V1_0::implementation
