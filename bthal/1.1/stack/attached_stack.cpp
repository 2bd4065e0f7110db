#include "stack/attached_stack.h"

#include <hidl/HidlTransportSupport.h>

#include <chrono>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {

namespace {

// How long a new stack waits until the death of the attached one has been handled.
constexpr std::chrono::seconds kEndOfDeadStack{5};

// Whether the runtime refuses to link to the object's death because it is dead already. Does not
// call the stack: one that is only stopped counts as alive.
bool IsDead(const sp<V1_0::IBluetoothHciCallbacks>& stack) {
  struct Nobody : hidl_death_recipient {
    void serviceDied(uint64_t, const wp<::android::hidl::base::V1_0::IBase>&) override {}
  };
  const sp<hidl_death_recipient> probe = new Nobody;
  const Return<bool> linked = stack->linkToDeath(probe, 0);
  if (!linked.isOk() || !static_cast<bool>(linked)) return true;
  (void)stack->unlinkToDeath(probe).isOk();
  return false;
}

}  // namespace

AttachedStack& AttachedStack::Get() {
  static auto* instance = new AttachedStack;
  return *instance;
}

bool AttachedStack::Attach(const Callbacks1_0& v1_0, const Callbacks1_1& v1_1) {
  const auto deadline = std::chrono::steady_clock::now() + kEndOfDeadStack;
  for (;;) {
    Callbacks1_0 attached;
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (g_cb_ == nullptr) {
        g_cb_ = v1_0;
        g_cb_1_1_ = v1_1;
        return true;
      }
      attached = g_cb_;
    }
    if (!IsDead(attached)) return false;
    std::unique_lock<std::mutex> guard(lock_);
    const base::ScopedLockAssertion locked(lock_);
    while (g_cb_ == attached) {
      if (detached_.wait_until(guard, deadline) == std::cv_status::timeout) return false;
    }
  }
}

void AttachedStack::Detach() { DetachIf(g_cb()); }

bool AttachedStack::DetachIf(const sp<::android::hidl::base::V1_0::IBase>& who) {
  const Callbacks1_0 attached = g_cb();
  if (attached == nullptr || who == nullptr || !interfacesEqual(attached, who)) return false;
  // Dropped after the lock: the last reference may end in a message to the stack.
  Callbacks1_0 v1_0;
  Callbacks1_1 v1_1;
  std::lock_guard<std::mutex> guard(lock_);
  if (g_cb_ != attached) return false;
  std::swap(v1_0, g_cb_);
  std::swap(v1_1, g_cb_1_1_);
  detached_.notify_all();
  return true;
}

bool AttachedStack::IsAttached(const sp<::android::hidl::base::V1_0::IBase>& who) const {
  const Callbacks1_0 attached = g_cb();
  return attached != nullptr && who != nullptr && interfacesEqual(attached, who);
}

AttachedStack::Callbacks1_0 AttachedStack::g_cb() const {
  std::lock_guard<std::mutex> guard(lock_);
  return g_cb_;
}

AttachedStack::Callbacks1_1 AttachedStack::g_cb_1_1() const {
  std::lock_guard<std::mutex> guard(lock_);
  return g_cb_1_1_;
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
