#define LOG_TAG "bthal.debug_central"

#include "stack_trace_helper.h"

#include <android-base/logging.h>

#include <map>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

const struct {
  BqrErrorCode code;
  void (*abort)(std::string message);
  const char* text;
} kErrors[] = {
#define BTHAL_ROW(code, name, text) {BqrErrorCode::name, name, text},
    BTHAL_BQR_ERRORS(BTHAL_ROW)
#undef BTHAL_ROW
};

std::map<BqrErrorCode, std::string> MakeMessages() {
  std::map<BqrErrorCode, std::string> messages;
  for (const auto& error : kErrors) {
    if (error.text != nullptr) messages.emplace(error.code, error.text);
  }
  return messages;
}

}  // namespace

// The empty assembly differs from function to function, so that none is folded into another.
#define BTHAL_DEFINE(code, name, text)                       \
  __attribute__((noinline)) void name(std::string message) { \
    asm volatile("# " #name);                                \
    LOG(FATAL) << message;                                   \
  }
// NOLINTNEXTLINE(performance-unnecessary-value-param): all of the table's type
BTHAL_BQR_ERRORS(BTHAL_DEFINE)
#undef BTHAL_DEFINE

const std::string& MessageOf(BqrErrorCode code) noexcept {
  static const auto* messages = new std::map<BqrErrorCode, std::string>(MakeMessages());
  return messages->at(code);
}

void LogFatal(BqrErrorCode code, const std::string& extra) {
  std::string message = "Bluetooth HAL crash with error code 0, vendor error code " +
                        std::to_string(static_cast<int>(code));
  if (!extra.empty()) message += ", extra info: " + extra;
  for (const auto& error : kErrors) {
    if (error.code == code) error.abort(message);
  }
  LOG(FATAL) << message;
  abort();
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
