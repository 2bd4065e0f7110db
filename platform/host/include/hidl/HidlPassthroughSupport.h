#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>

namespace android::hardware::details {

sp<::android::hidl::base::V1_0::IBase> wrapPassthroughInternal(
    const sp<::android::hidl::base::V1_0::IBase>& interface);

// The wrapper that gives a local implementation the manners of a remote one.
template <typename Interface>
sp<Interface> wrapPassthrough(const sp<Interface>& interface) {
  if (interface == nullptr || interface->isRemote()) return interface;
  const sp<::android::hidl::base::V1_0::IBase> wrapper = wrapPassthroughInternal(interface);
  return wrapper == nullptr ? interface : sp<Interface>(static_cast<Interface*>(wrapper.get()));
}

}  // namespace android::hardware::details
