#include "evidence/report.h"

#include "evidence/evidence.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

void Report(BqrErrorCode code, const std::string& why) { Evidence::Get().fatal.Report(code, why); }

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
