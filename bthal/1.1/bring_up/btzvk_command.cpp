#define LOG_TAG "bthal.zvkproto"

#include "bring_up/btzvk_command.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/thread_annotations.h>

#include <chrono>
#include <mutex>

#include "evidence/record.h"
#include "hci/command_waiter.h"

namespace android::hardware::bluetooth {
namespace {

using ::android::base::StringPrintf;

// The time-out of each command of the bring-up.
constexpr std::chrono::seconds kBringUpCommandTimeout{2};

struct LastCompletion {
  std::mutex lock;
  hidl_vec<uint8_t> event GUARDED_BY(lock);
};

LastCompletion& Last() {
  static auto* last = new LastCompletion;
  return *last;
}

// Returns the status of the answer.
uint8_t SendAndWait(hci::HciFlowControl& flow, const std::vector<uint8_t>& command,
                    uint16_t opcode) {
  hci::CommandWaiter waiter(LOG_TAG, opcode, kCommandTimedOut, base::VERBOSE);
  const uint8_t result = waiter.SendAndWait(flow, command, kBringUpCommandTimeout);
  const hidl_vec<uint8_t> answer = waiter.answer();
  if (!answer.empty()) {
    std::lock_guard<std::mutex> guard(Last().lock);
    Last().event = answer;
  }
  return result;
}

}  // namespace

hidl_vec<uint8_t> btzvk_last_completion() {
  std::lock_guard<std::mutex> guard(Last().lock);
  return Last().event;
}

uint8_t btzvk_send_command_wait_complete(hci::HciFlowControl* flow, uint16_t opcode, uint8_t length,
                                         const uint8_t* params) {
  const uint8_t result =
      flow == nullptr ? kCommandTimedOut
                      : SendAndWait(*flow, hci::BuildCommand(opcode, length, params), opcode);
  const std::string text = StringPrintf("0x%04x LEN 0x%02x Result 0x%02x", opcode, length, result);
  LOG(result == 0 ? base::DEBUG : base::ERROR) << __func__ << ": " << text;
  if (result != 0) {
    evidence::RecordFormat(AnchorType::kCommandFailed, "%s: opcode %s", __func__, text.c_str());
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
