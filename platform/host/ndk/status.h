#pragma once

#include <android/binder_status.h>

#include <string>

struct AStatus {
  static const AStatus& Ok();

  binder_exception_t exception = EX_NONE;
  // The service's own error, or, with EX_TRANSACTION_FAILED, a binder_status_t.
  int32_t error = 0;
  std::string message;
};
