#pragma once

#include <android/binder_status.h>

#ifdef __cplusplus
extern "C" {
#endif

// The pool that serves calls to objects made by AIBinder_new().
bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t numThreads);
void ABinderProcess_startThreadPool(void);

#ifdef __cplusplus
}
#endif
