// The C interface of binder objects, as far as generated code and the activity watcher use it.
// Objects and calls travel over the same sockets as those of HIDL; see hwbinder/IBinder.h.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
  STATUS_OK = 0,
  STATUS_NO_MEMORY = -12,
  STATUS_INVALID_OPERATION = -38,
  STATUS_BAD_VALUE = -22,
  STATUS_BAD_TYPE = INT32_MIN + 1,
  STATUS_NAME_NOT_FOUND = -2,
  STATUS_DEAD_OBJECT = -32,
  STATUS_NOT_ENOUGH_DATA = -61,
  STATUS_UNKNOWN_TRANSACTION = -74,
  STATUS_UNEXPECTED_NULL = INT32_MIN + 8,
};
typedef int32_t binder_status_t;

enum {
  EX_NONE = 0,
  EX_ILLEGAL_ARGUMENT = -3,
  EX_SERVICE_SPECIFIC = -8,
  EX_TRANSACTION_FAILED = -129,
};
typedef int32_t binder_exception_t;

// The outcome of a call, beside its transport. Null stands for success.
struct AStatus;
typedef struct AStatus AStatus;

AStatus* AStatus_newOk(void);
AStatus* AStatus_fromExceptionCode(binder_exception_t exception);
AStatus* AStatus_fromServiceSpecificError(int32_t error);
AStatus* AStatus_fromStatus(binder_status_t status);
bool AStatus_isOk(const AStatus* status);
binder_exception_t AStatus_getExceptionCode(const AStatus* status);
int32_t AStatus_getServiceSpecificError(const AStatus* status);
binder_status_t AStatus_getStatus(const AStatus* status);
const char* AStatus_getMessage(const AStatus* status);
void AStatus_delete(AStatus* status);

#ifdef __cplusplus
}
#endif
