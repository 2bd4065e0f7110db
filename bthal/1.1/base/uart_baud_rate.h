#pragma once

#include <cstdint>

namespace android::hardware::bluetooth {

// Line speeds, in bit/s.
enum class UartBaudRate : uint32_t {
  kRate115200 = 115200,
  kRate3000000 = 3000000,
  kRate4000000 = 4000000,
  kRate6000000 = 6000000,
};

inline bool IsSupported(UartBaudRate rate) {
  return rate == UartBaudRate::kRate115200 || rate == UartBaudRate::kRate3000000 ||
         rate == UartBaudRate::kRate4000000 || rate == UartBaudRate::kRate6000000;
}

}  // namespace android::hardware::bluetooth
