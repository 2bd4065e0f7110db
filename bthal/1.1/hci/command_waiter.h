#pragma once

#include <android-base/thread_annotations.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <vector>

#include "hci/event_watcher.h"
#include "hci_flow_control.h"

namespace android::hardware::bluetooth::hci {

// Sends one command through the queue and waits, on the calling thread, for its Command Complete.
// Lives on the stack of the waiting call.
class CommandWaiter : public HciEventWatcher {
 public:
  // no_answer: the result when none has come.
  CommandWaiter(const char* name, uint16_t opcode, uint8_t no_answer)
      : HciEventWatcher(name, kEventCommandComplete, opcode), no_answer_(no_answer) {}

  // Returns the status of the answer; errno is ETIMEDOUT when it does not come. The wait ends
  // without one after limit (none: no limit), when flow is halted, when the command cannot be sent,
  // or by GiveUp().
  uint8_t SendAndWait(HciFlowControl& flow, const std::vector<uint8_t>& command,
                      std::optional<std::chrono::milliseconds> limit) EXCLUDES(lock_);

  // Any thread.
  void GiveUp() EXCLUDES(lock_) { Complete(no_answer_); }

  bool OnEventReceive(const hidl_vec<uint8_t>& event) final EXCLUDES(lock_);
  void OnHalt() final { GiveUp(); }

 protected:
  // Takes the answer, on the reader thread under the flow-control lock. Returns whether it is kept
  // from the stack.
  virtual bool OnAnswer(const hidl_vec<uint8_t>& event, uint8_t status) = 0;

 private:
  // The first result counts.
  void Complete(uint8_t status) EXCLUDES(lock_);

  const uint8_t no_answer_;
  std::mutex lock_;  // a leaf
  std::condition_variable completed_;
  std::optional<uint8_t> result_ GUARDED_BY(lock_);
};

}  // namespace android::hardware::bluetooth::hci
