#include "stack_link.h"

#include <hidl/HidlTransportSupport.h>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {

StackLink& StackLink::Get() {
  static auto* instance = new StackLink;
  return *instance;
}

bool StackLink::Attach(const Callbacks1_0& v1_0, const Callbacks1_1& v1_1) {
  std::lock_guard<std::mutex> guard(lock_);
  if (g_cb_ != nullptr) return false;
  g_cb_ = v1_0;
  g_cb_1_1_ = v1_1;
  return true;
}

void StackLink::Detach() {
  // Dropped after the lock: the last reference may end in a message to the stack.
  Callbacks1_0 v1_0;
  Callbacks1_1 v1_1;
  std::lock_guard<std::mutex> guard(lock_);
  std::swap(v1_0, g_cb_);
  std::swap(v1_1, g_cb_1_1_);
}

bool StackLink::DetachIf(const sp<::android::hidl::base::V1_0::IBase>& who) {
  const Callbacks1_0 attached = g_cb();
  if (attached == nullptr || who == nullptr || !interfacesEqual(attached, who)) return false;
  Callbacks1_0 v1_0;
  Callbacks1_1 v1_1;
  std::lock_guard<std::mutex> guard(lock_);
  if (g_cb_ != attached) return false;
  std::swap(v1_0, g_cb_);
  std::swap(v1_1, g_cb_1_1_);
  return true;
}

bool StackLink::IsAttached(const sp<::android::hidl::base::V1_0::IBase>& who) const {
  const Callbacks1_0 attached = g_cb();
  return attached != nullptr && who != nullptr && interfacesEqual(attached, who);
}

StackLink::Callbacks1_0 StackLink::g_cb() const {
  std::lock_guard<std::mutex> guard(lock_);
  return g_cb_;
}

StackLink::Callbacks1_1 StackLink::g_cb_1_1() const {
  std::lock_guard<std::mutex> guard(lock_);
  return g_cb_1_1_;
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
