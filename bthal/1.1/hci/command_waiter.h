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

// Sends one command through the queue and waits, on the calling thread, for its Command Complete,
// which it logs and keeps from the stack. Lives on the stack of the waiting call.
class CommandWaiter final : public HciEventWatcher {
 public:
  // Which Command Completes of the opcode are kept from the stack while the call waits.
  enum class Keep { kFirst, kAll };

  // log_tag: of the answer's line, whose severity is success when its status is 0. no_answer: the
  // result when none has come.
  CommandWaiter(const char* log_tag, uint16_t opcode, uint8_t no_answer,
                base::LogSeverity success = base::INFO, Keep keep = Keep::kAll)
      : HciEventWatcher(log_tag, kEventCommandComplete, opcode),
        no_answer_(no_answer),
        success_(success),
        keep_(keep),
        refusal_(*this) {}

  // Returns the status of the answer; errno is ETIMEDOUT when it does not come. The wait ends
  // without one after limit (none: no limit), when flow is halted, when the command cannot be sent,
  // or by GiveUp(). Without a limit a Command Status that refuses the command is an answer, too,
  // and stays from the stack: no other would come.
  uint8_t SendAndWait(HciFlowControl& flow, const std::vector<uint8_t>& command,
                      std::optional<std::chrono::milliseconds> limit) EXCLUDES(lock_);

  // The last answer, a whole event, also one that came after GiveUp(); empty when none has come.
  hidl_vec<uint8_t> answer() const EXCLUDES(lock_);

  // Any thread.
  void GiveUp() EXCLUDES(lock_) { Complete(no_answer_); }

  bool OnEventReceive(const hidl_vec<uint8_t>& event) override EXCLUDES(lock_);
  void OnHalt() override { GiveUp(); }

 private:
  // Takes the Command Status of the same opcode.
  class RefusalWatcher final : public HciEventWatcher {
   public:
    explicit RefusalWatcher(CommandWaiter& waiter)
        : HciEventWatcher(waiter.name().c_str(), kEventCommandStatus, waiter.opcode()),
          waiter_(waiter) {}
    bool OnEventReceive(const hidl_vec<uint8_t>& event) override;

   private:
    CommandWaiter& waiter_;
  };

  // Returns whether the answer is the first one.
  bool Take(const hidl_vec<uint8_t>& event, uint8_t status) EXCLUDES(lock_);
  // The first result counts.
  void Complete(uint8_t status) EXCLUDES(lock_);

  const uint8_t no_answer_;
  const base::LogSeverity success_;
  const Keep keep_;
  RefusalWatcher refusal_;
  mutable std::mutex lock_;  // a leaf
  std::condition_variable completed_;
  std::optional<uint8_t> result_ GUARDED_BY(lock_);
  hidl_vec<uint8_t> answer_ GUARDED_BY(lock_);
};

}  // namespace android::hardware::bluetooth::hci
