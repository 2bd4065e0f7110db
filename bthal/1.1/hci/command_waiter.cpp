#include "hci/command_waiter.h"

#include <cerrno>

namespace android::hardware::bluetooth::hci {

uint8_t CommandWaiter::SendAndWait(HciFlowControl& flow, const std::vector<uint8_t>& command,
                                   std::optional<std::chrono::milliseconds> limit) {
  const auto deadline =
      std::chrono::steady_clock::now() + limit.value_or(std::chrono::milliseconds(0));
  flow.RegisterEventWatcher(this);
  if (!limit) flow.RegisterEventWatcher(&refusal_);
  if (flow.Send(HCI_PACKET_TYPE_COMMAND, command.data(), command.size()) < command.size()) {
    GiveUp();
  }
  {
    std::unique_lock<std::mutex> guard(lock_);
    const base::ScopedLockAssertion locked(lock_);
    while (!result_) {
      if (!limit) {
        completed_.wait(guard);
      } else if (completed_.wait_until(guard, deadline) == std::cv_status::timeout) {
        errno = ETIMEDOUT;
        break;
      }
    }
  }
  if (!limit) flow.UnregisterEventWatcher(&refusal_);
  flow.UnregisterEventWatcher(this);
  // An answer that came between the end of the wait and here counts.
  GiveUp();
  std::lock_guard<std::mutex> guard(lock_);
  return *result_;
}

bool CommandWaiter::OnEventReceive(const hidl_vec<uint8_t>& event) {
  LogAnswer(event, success_);
  const bool first = Take(event, CommandCompleteStatus(event));
  return first || keep_ == Keep::kAll;
}

bool CommandWaiter::RefusalWatcher::OnEventReceive(const hidl_vec<uint8_t>& event) {
  if (!IsRefusal(event)) return false;
  LogAnswer(event, base::INFO);
  const bool first = waiter_.Take(event, ByteAt(event, 2));
  return first || waiter_.keep_ == Keep::kAll;
}

bool CommandWaiter::Take(const hidl_vec<uint8_t>& event, uint8_t status) {
  bool first = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    first = answer_.empty();
    answer_ = event;
  }
  Complete(status);
  return first;
}

hidl_vec<uint8_t> CommandWaiter::answer() const {
  std::lock_guard<std::mutex> guard(lock_);
  return answer_;
}

void CommandWaiter::Complete(uint8_t status) {
  std::lock_guard<std::mutex> guard(lock_);
  if (result_) return;
  result_ = status;
  completed_.notify_all();
}

}  // namespace android::hardware::bluetooth::hci
