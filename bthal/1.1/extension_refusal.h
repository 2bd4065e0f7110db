#pragma once

#include <log/log.h>

namespace android::hardware::bluetooth {

// An extension that is published but does not reach the controller yet says so on each call: the
// caller gets the answer of a controller that does not take part.
inline void RefuseExtensionCall(const char* tag, const char* call) {
  __android_log_print(ANDROID_LOG_WARN, tag, "%s: refused, this service does not do it yet", call);
}

}  // namespace android::hardware::bluetooth
