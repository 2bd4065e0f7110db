#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_status.h>

#ifdef __cplusplus
extern "C" {
#endif

binder_exception_t AServiceManager_addService(AIBinder* binder, const char* instance);
// The service as it is now, or null. The caller owns one reference.
AIBinder* AServiceManager_checkService(const char* instance);
// Waits for it as long as a look-up of a HIDL service does.
AIBinder* AServiceManager_getService(const char* instance);

#ifdef __cplusplus
}
#endif
