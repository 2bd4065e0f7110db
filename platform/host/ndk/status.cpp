#include "ndk/status.h"

const AStatus& AStatus::Ok() {
  static const auto* const ok = new AStatus;
  return *ok;
}

AStatus* AStatus_newOk() { return new AStatus; }

AStatus* AStatus_fromExceptionCode(binder_exception_t exception) {
  return new AStatus{exception, 0, ""};
}

AStatus* AStatus_fromStatus(binder_status_t status) {
  if (status == STATUS_OK) return AStatus_newOk();
  return new AStatus{EX_TRANSACTION_FAILED, status, ""};
}

AStatus* AStatus_fromServiceSpecificError(int32_t error) {
  return new AStatus{EX_SERVICE_SPECIFIC, error, ""};
}

bool AStatus_isOk(const AStatus* status) { return AStatus_getExceptionCode(status) == EX_NONE; }

binder_exception_t AStatus_getExceptionCode(const AStatus* status) {
  return status == nullptr ? EX_NONE : status->exception;
}

int32_t AStatus_getServiceSpecificError(const AStatus* status) {
  return AStatus_getExceptionCode(status) == EX_SERVICE_SPECIFIC ? status->error : 0;
}

binder_status_t AStatus_getStatus(const AStatus* status) {
  return AStatus_getExceptionCode(status) == EX_TRANSACTION_FAILED ? status->error : STATUS_OK;
}

const char* AStatus_getMessage(const AStatus* status) {
  return status == nullptr ? "" : status->message.c_str();
}

void AStatus_delete(AStatus* status) { delete status; }
