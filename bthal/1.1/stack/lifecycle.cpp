#include "stack/lifecycle.h"

#include <utility>

#include "base/thread_role.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {

Lifecycle::Turn::Turn(Lifecycle& lifecycle, State state) : lifecycle_(&lifecycle) {
  std::unique_lock<std::mutex> guard(lifecycle.lock_);
  const base::ScopedLockAssertion locked(lifecycle.lock_);
  while (lifecycle.IsTurn()) {
    if (IsJoinedByTeardown()) {
      lifecycle_ = nullptr;
      return;
    }
    lifecycle.turn_ended_.wait(guard);
  }
  lifecycle.state_ = state;
}

Lifecycle::Turn::Turn(Turn&& other) noexcept
    : lifecycle_(std::exchange(other.lifecycle_, nullptr)) {}

Lifecycle::Turn::~Turn() {
  if (lifecycle_ == nullptr) return;
  std::lock_guard<std::mutex> guard(lifecycle_->lock_);
  lifecycle_->Rest();
  lifecycle_->turn_ended_.notify_all();
}

void Lifecycle::Turn::Become(State state) {
  std::lock_guard<std::mutex> guard(lifecycle_->lock_);
  lifecycle_->state_ = state;
}

Lifecycle::Initialization::Initialization(Lifecycle& lifecycle) : lifecycle_(lifecycle) {
  std::lock_guard<std::mutex> guard(lifecycle_.lock_);
  ++lifecycle_.initializing_;
}

bool Lifecycle::Initialization::End() {
  if (std::exchange(ended_, true)) return false;
  std::lock_guard<std::mutex> guard(lifecycle_.lock_);
  if (--lifecycle_.initializing_ > 0) return false;
  return std::exchange(lifecycle_.close_wanted_, false);
}

bool Lifecycle::DeferClose() {
  std::lock_guard<std::mutex> guard(lock_);
  if (initializing_ > 0) close_wanted_ = true;
  return initializing_ > 0;
}

std::shared_ptr<hci::HciFlowControl> Lifecycle::hci_handle() const {
  std::lock_guard<std::mutex> guard(lock_);
  return hci_handle_;
}

void Lifecycle::set_hci_handle(std::shared_ptr<hci::HciFlowControl> handle) {
  // The old one goes after the lock.
  std::lock_guard<std::mutex> guard(lock_);
  hci_handle_.swap(handle);
  if (!IsTurn()) Rest();
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
