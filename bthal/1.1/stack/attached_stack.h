#pragma once

#include <android-base/thread_annotations.h>
#include <android/hardware/bluetooth/1.1/IBluetoothHciCallbacks.h>

#include <condition_variable>
#include <mutex>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {

// The stack's callback objects: one HAL per process, one stack at a time. Built on first use, never
// destroyed. Any thread; its lock is a leaf.
class AttachedStack {
 public:
  using Callbacks1_0 = sp<V1_0::IBluetoothHciCallbacks>;
  using Callbacks1_1 = sp<V1_1::IBluetoothHciCallbacks>;

  static AttachedStack& Get();

  // Stores the callbacks of a stack that attaches, unless another one is attached and alive. While
  // a dead one is attached, waits until its death has been handled, 5 s at most. v1_1 is null when
  // the stack attached through 1.0. Returns whether it is attached now.
  bool Attach(const Callbacks1_0& v1_0, const Callbacks1_1& v1_1);
  void Detach();
  // Detaches who, if it is the attached stack. Returns whether it was.
  bool DetachIf(const sp<::android::hidl::base::V1_0::IBase>& who);
  bool IsAttached(const sp<::android::hidl::base::V1_0::IBase>& who) const;

  Callbacks1_0 g_cb() const;      // null: no stack
  Callbacks1_1 g_cb_1_1() const;  // null: no stack, or one of 1.0

 private:
  mutable std::mutex lock_;
  std::condition_variable detached_;
  Callbacks1_0 g_cb_ GUARDED_BY(lock_);
  Callbacks1_1 g_cb_1_1_ GUARDED_BY(lock_);
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
