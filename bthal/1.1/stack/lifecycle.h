#pragma once

#include <android-base/thread_annotations.h>

#include <condition_variable>
#include <memory>
#include <mutex>

#include "hci_flow_control.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {

// The state of Bluetooth. Bring-ups and tear-downs run one after the other, each for one Turn: a
// stack's initialize and close, the handling of a stack's death, the bring-up at the start of the
// process. The big hammer and SIGTERM take no turn: they close the
// transport under whatever runs, which then fails and ends. Owned by the HAL object. Any thread;
// its lock is a leaf.
class Lifecycle {
 public:
  enum class State {
    kOff,        // the transport is closed
    kComingUp,   // a turn
    kUp,         // the transport is open
    kGoingDown,  // a turn
    kDead,       // a turn: the attached stack has died, and is not detached yet
  };

  // Held for one bring-up or tear-down. May be handed to another thread.
  class Turn {
   public:
    // Waits until no other turn runs. A thread that the running one may be joining does not wait:
    // its turn is refused, and it must return.
    Turn(Lifecycle& lifecycle, State state);
    Turn(Turn&& other) noexcept;
    // Off, or up where there is a flow control.
    ~Turn();
    Turn& operator=(Turn&&) = delete;

    explicit operator bool() const { return lifecycle_ != nullptr; }
    // The next state of the same turn.
    void Become(State state);

   private:
    Lifecycle* lifecycle_;  // null: refused, or handed on
  };

  // Held for one call of initialize. A close that comes meanwhile, from inside one of the stack's
  // callbacks, is deferred until its end.
  class Initialization {
   public:
    explicit Initialization(Lifecycle& lifecycle);
    ~Initialization() { End(); }
    Initialization(const Initialization&) = delete;
    Initialization& operator=(const Initialization&) = delete;

    // Returns whether a close was deferred, which the caller must do now.
    bool End();

   private:
    Lifecycle& lifecycle_;
    bool ended_ = false;
  };

  // Defers a close until the running initialize ends. Returns whether one is running.
  bool DeferClose() EXCLUDES(lock_);

  // The flow control of the open transport; null while it is closed.
  std::shared_ptr<hci::HciFlowControl> hci_handle() const EXCLUDES(lock_);
  void set_hci_handle(std::shared_ptr<hci::HciFlowControl> handle) EXCLUDES(lock_);

 private:
  bool IsTurn() const REQUIRES(lock_) { return state_ != State::kOff && state_ != State::kUp; }
  void Rest() REQUIRES(lock_) { state_ = hci_handle_ == nullptr ? State::kOff : State::kUp; }

  mutable std::mutex lock_;
  std::condition_variable turn_ended_;
  State state_ GUARDED_BY(lock_) = State::kOff;
  std::shared_ptr<hci::HciFlowControl> hci_handle_ GUARDED_BY(lock_);
  int initializing_ GUARDED_BY(lock_) = 0;  // more than one: called from inside a callback, too
  bool close_wanted_ GUARDED_BY(lock_) = false;
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
