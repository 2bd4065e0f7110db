#define LOG_TAG "bthal.zvkproto"

#include "bring_up/btzvk_command.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/thread_annotations.h>
#include <log/log.h>

#include <chrono>
#include <mutex>

#include "evidence/record.h"
#include "hci/command_waiter.h"

namespace android::hardware::bluetooth {
namespace {

using ::android::base::StringPrintf;
using evidence::AnchorType;

constexpr std::chrono::seconds kCommandTimeout{2};

struct LastCompletion {
  std::mutex lock;
  hidl_vec<uint8_t> event GUARDED_BY(lock);
};

LastCompletion& Last() {
  static auto* last = new LastCompletion;
  return *last;
}

class BtzvkEventWatcher final : public hci::CommandWaiter {
 public:
  explicit BtzvkEventWatcher(uint16_t opcode)
      : CommandWaiter("bthal.zvkproto", opcode, kCommandTimedOut) {}

 protected:
  bool OnAnswer(const hidl_vec<uint8_t>& event, uint8_t status) override {
    constexpr char kOperation[] = "OnEventReceive";
    if (status != 0) {
      LOG(WARNING) << kOperation << ": Recv Failure VSE <" << toString(event) << ">";
    } else {
      LOG(VERBOSE) << kOperation << ": Recv Success VSE <" << toString(event) << ">";
    }
    std::lock_guard<std::mutex> guard(Last().lock);
    Last().event = event;
    return true;
  }
};

}  // namespace

hidl_vec<uint8_t> btzvk_last_completion() {
  std::lock_guard<std::mutex> guard(Last().lock);
  return Last().event;
}

uint8_t btzvk_send_command_wait_complete(hci::HciFlowControl* flow, uint16_t opcode, uint8_t length,
                                         const uint8_t* params) {
  const uint8_t result =
      flow == nullptr ? kCommandTimedOut
                      : BtzvkEventWatcher(opcode).SendAndWait(
                            *flow, hci::BuildCommand(opcode, length, params), kCommandTimeout);
  if (result != 0) {
    const std::string text = StringPrintf("%s: opcode 0x%04x LEN 0x%02x Result 0x%02x", __func__,
                                          opcode, length, result);
    LOG(ERROR) << __func__
               << StringPrintf(": 0x%04x LEN 0x%02x Result 0x%02x", opcode, length, result);
    evidence::Record(AnchorType::kCommandFailed, text);
  } else {
    LOG(DEBUG) << __func__
               << StringPrintf(": 0x%04x LEN 0x%02x Result 0x%02x", opcode, length, result);
  }
  return result;
}

bool btzvk_send_command_no_wait(hci::HciFlowControl* flow, uint16_t opcode, uint8_t length,
                                const uint8_t* params) {
  if (flow == nullptr) return false;
  const std::vector<uint8_t> command = hci::BuildCommand(opcode, length, params);
  const size_t sent = flow->SendNoAck(hci::HCI_PACKET_TYPE_COMMAND, command.data(), command.size());
  LOG(DEBUG) << __func__ << StringPrintf(": 0x%04x LEN 0x%02x", opcode, length);
  return sent >= command.size();
}

}  // namespace android::hardware::bluetooth
