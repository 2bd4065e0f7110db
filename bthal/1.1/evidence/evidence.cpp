#include "evidence/evidence.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

Evidence& Evidence::Get() {
  static auto* evidence = new Evidence;
  return *evidence;
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
