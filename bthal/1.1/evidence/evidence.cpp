#include "evidence/evidence.h"

#include "evidence/report.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

Evidence& Evidence::Get() {
  static auto* evidence = new Evidence;
  return *evidence;
}

void Report(BqrErrorCode code, const std::string& why) { Evidence::Get().fatal.Report(code, why); }

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
