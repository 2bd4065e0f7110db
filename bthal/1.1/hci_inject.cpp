#define LOG_TAG "bthal.btext"

#include "hci_inject.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "debug_central.h"
#include "extension_command.h"
#include "hci_packet.h"

namespace hardware::nuvexa::bluetooth::ext::V1_0::implementation {

using ::android::base::StringPrintf;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::bluetooth::CurrentFlowControl;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::AnchorType;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
namespace hci = ::android::hardware::bluetooth::hci;

namespace {

constexpr std::chrono::seconds kAnswerTimeout{2};
constexpr uint8_t kNoAnswer = 0x03;  // HCI's code for a hardware failure

CurrentFlowControl& Flow() {
  static auto* flow = new CurrentFlowControl;
  return *flow;
}

// Lives on the stack of a waiting call.
class BtExtEventWatcher final : public hci::HciEventWatcher {
 public:
  explicit BtExtEventWatcher(uint16_t opcode)
      : HciEventWatcher(LOG_TAG, hci::kEventCommandComplete, opcode) {}

  std::future<uint8_t> Result() { return result_.get_future(); }
  // The first value counts.
  void Settle(uint8_t status) {
    if (!settled_.exchange(true)) result_.set_value(status);
  }

  bool OnEventReceive(const hidl_vec<uint8_t>& event) override {
    const uint8_t status = hci::CommandCompleteStatus(event);
    LOG(status == 0 ? ::android::base::INFO : ::android::base::WARNING)
        << __func__ << (status == 0 ? ": Recv Success VSE <" : ": Recv Failure VSE <")
        << toString(event) << ">";
    Settle(status);
    return true;
  }

  void OnHalt() override { Settle(kNoAnswer); }

 private:
  std::promise<uint8_t> result_;
  std::atomic<bool> settled_{false};
};

// Returns the status, or kNoAnswer.
uint8_t SendAndWait(hci::HciFlowControl& flow, uint16_t opcode,
                    const std::vector<uint8_t>& command) {
  BtExtEventWatcher watcher(opcode);
  std::future<uint8_t> result = watcher.Result();
  flow.RegisterEventWatcher(&watcher);
  flow.Send(hci::HCI_PACKET_TYPE_COMMAND, command.data(), command.size());
  result.wait_for(kAnswerTimeout);
  flow.UnregisterEventWatcher(&watcher);
  watcher.Settle(kNoAnswer);
  return result.get();
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
  DebugCentral::Get().UpdateRecord(AnchorType::kCommandInjected,
                                   StringPrintf("%s: %s", __func__, text.c_str()));
  const std::vector<uint8_t> command = hci::BuildCommand(opcode, length, params.data());
  LOG(INFO) << __func__ << ": inject hci_cmd: " << toString(hidl_vec<uint8_t>(command));

  const uint8_t result = SendAndWait(*flow, opcode, command);
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
