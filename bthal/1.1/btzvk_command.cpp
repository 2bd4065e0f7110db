#define LOG_TAG "bthal.zvkproto"

#include "btzvk_command.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/thread_annotations.h>
#include <log/log.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>

#include "debug_central.h"

namespace android::hardware::bluetooth {
namespace {

using ::android::base::StringPrintf;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::AnchorType;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;

constexpr std::chrono::seconds kCommandTimeout{2};

struct LastCompletion {
  std::mutex lock;
  hidl_vec<uint8_t> event GUARDED_BY(lock);
};

LastCompletion& Last() {
  static auto* last = new LastCompletion;
  return *last;
}

// Lives on the stack of a waiting call.
class BtzvkEventWatcher final : public hci::HciEventWatcher {
 public:
  explicit BtzvkEventWatcher(uint16_t opcode)
      : HciEventWatcher("bthal.zvkproto", hci::kEventCommandComplete, opcode) {}

  std::future<uint8_t> Result() { return result_.get_future(); }

  // The first value counts. Called under the flow-control lock, or once nobody else can be.
  void Settle(uint8_t status) {
    if (!settled_.exchange(true)) result_.set_value(status);
  }

  bool OnEventReceive(const hidl_vec<uint8_t>& event) override {
    const uint8_t status = hci::CommandCompleteStatus(event);
    if (status != 0) {
      LOG(WARNING) << __func__ << ": Recv Failure VSE <" << toString(event) << ">";
    } else {
      LOG(VERBOSE) << __func__ << ": Recv Success VSE <" << toString(event) << ">";
    }
    {
      std::lock_guard<std::mutex> guard(Last().lock);
      Last().event = event;
    }
    Settle(status);
    return true;
  }

  void OnHalt() override { Settle(kCommandTimedOut); }

 private:
  std::promise<uint8_t> result_;
  std::atomic<bool> settled_{false};
};

}  // namespace

hidl_vec<uint8_t> btzvk_last_completion() {
  std::lock_guard<std::mutex> guard(Last().lock);
  return Last().event;
}

uint8_t btzvk_send_command_wait_complete(hci::HciFlowControl* flow, uint16_t opcode, uint8_t length,
                                         const uint8_t* params) {
  BtzvkEventWatcher watcher(opcode);
  std::future<uint8_t> future = watcher.Result();
  if (flow != nullptr) {
    const std::vector<uint8_t> command = hci::BuildCommand(opcode, length, params);
    flow->RegisterEventWatcher(&watcher);
    flow->Send(hci::HCI_PACKET_TYPE_COMMAND, command.data(), command.size());
    future.wait_for(kCommandTimeout);
    flow->UnregisterEventWatcher(&watcher);
  }
  watcher.Settle(kCommandTimedOut);

  const uint8_t result = future.get();
  if (result != 0) {
    const std::string text = StringPrintf("%s: opcode 0x%04x LEN 0x%02x Result 0x%02x", __func__,
                                          opcode, length, result);
    LOG(ERROR) << __func__
               << StringPrintf(": 0x%04x LEN 0x%02x Result 0x%02x", opcode, length, result);
    DebugCentral::Get().UpdateRecord(AnchorType::kCommandFailed, text);
  } else {
    LOG(DEBUG) << __func__
               << StringPrintf(": 0x%04x LEN 0x%02x Result 0x%02x", opcode, length, result);
  }
  return result;
}

void btzvk_send_command_no_wait(hci::HciFlowControl* flow, uint16_t opcode, uint8_t length,
                                const uint8_t* params) {
  if (flow == nullptr) return;
  const std::vector<uint8_t> command = hci::BuildCommand(opcode, length, params);
  flow->SendNoAck(hci::HCI_PACKET_TYPE_COMMAND, command.data(), command.size());
  LOG(DEBUG) << __func__ << StringPrintf(": 0x%04x LEN 0x%02x", opcode, length);
}

}  // namespace android::hardware::bluetooth
