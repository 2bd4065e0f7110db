#pragma once

#include <hidl/HidlSupport.h>

namespace android::hardware::details {

// For passthrough wrappers, of which there are none: no implementation lives in a library.
template <typename Interface>
sp<Interface> wrapPassthrough(const sp<Interface>& interface) {
  return interface;
}

}  // namespace android::hardware::details
