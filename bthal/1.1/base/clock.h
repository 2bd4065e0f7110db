#pragma once

#include <time.h>

#include <cstdint>

namespace android::hardware::bluetooth {

// In nanoseconds; since 1970 by CLOCK_REALTIME.
inline int64_t ReadClockNs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace android::hardware::bluetooth
