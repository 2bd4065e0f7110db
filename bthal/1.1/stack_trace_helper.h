#pragma once

#include <string>

#include "evidence/bqr_error_code.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// One function per fatal error, so that the backtrace of the crash names it: each writes message
// to the log at fatal severity, which aborts.
#define BTHAL_DECLARE(code, name, text) void name(std::string message);
BTHAL_BQR_ERRORS(BTHAL_DECLARE)
#undef BTHAL_DECLARE

// The message of a fatal error. An error without a message ends the process here, too.
const std::string& MessageOf(BqrErrorCode code) noexcept;

// Aborts through the function of code, with "Bluetooth HAL crash with error code 0, vendor error
// code …" and extra, if any. Does not return.
[[noreturn]] void LogFatal(BqrErrorCode code, const std::string& extra);

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
