#define LOG_TAG "bthal.btext"

#include "hci_inject.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include <chrono>
#include <string>
#include <vector>

#include "hci/command_waiter.h"

namespace hardware::nuvexa::bluetooth::ext::V1_0::implementation {

using ::android::base::StringPrintf;
using ::android::hardware::bluetooth::CurrentFlowControl;

namespace {

constexpr std::chrono::seconds kInjectedCommandTimeout{2};
constexpr uint8_t kNoAnswer = 0x03;  // HCI's code for a hardware failure

CurrentFlowControl& Flow() {
  static auto* flow = new CurrentFlowControl;
  return *flow;
}

}  // namespace

Return<bool> BluetoothExt::setBluetoothCmdPacket(uint16_t opcode, const hidl_vec<uint8_t>& params) {
  const CurrentFlowControl::Ref flow = Flow().Get();
  if (flow == nullptr) {
    LOG(WARNING) << __func__ << ": Unable to inject command, Bluetooth is off";
    return false;
  }
  const auto length = static_cast<uint8_t>(params.size());
  const std::string text = StringPrintf("0x%04x LEN 0x%02x", opcode, length);
  LOG(DEBUG) << __func__ << ": inject opcode: " << text << " params: " << toString(params);
  evidence::RecordFormat(AnchorType::kCommandInjected, "%s: %s", __func__, text.c_str());
  const std::vector<uint8_t> command = hci::BuildCommand(opcode, length, params.data());
  LOG(INFO) << __func__ << ": inject hci_cmd: " << toString(hidl_vec<uint8_t>(command));

  const uint8_t result = hci::CommandWaiter(LOG_TAG, opcode, kNoAnswer)
                             .SendAndWait(*flow, command, kInjectedCommandTimeout);
  LOG(result == 0 ? ::android::base::INFO : ::android::base::ERROR)
      << __func__ << ": " << text << StringPrintf(" Result 0x%02x", result);
  return result == 0;
}

void BluetoothExt::OnBluetoothEnabled(hci::HciFlowControl* flow) {
  LOG(DEBUG) << __func__;
  Flow().Set(flow);
}

void BluetoothExt::OnBluetoothDisabled() {
  LOG(DEBUG) << __func__;
  Flow().Clear();
}

}  // namespace hardware::nuvexa::bluetooth::ext::V1_0::implementation
