// Fatal errors.
#pragma once

#include <string>

#include "evidence/bqr_error_code.h"
#include "evidence/record.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// Tells the stack, writes the crash files, and ends the process through the function named after
// code. Does not return, on any thread.
void Report(BqrErrorCode code, const std::string& why);

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
