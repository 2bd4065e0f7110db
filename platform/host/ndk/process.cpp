// The process's pool for binder objects, and the names of services.
#include <android/binder_manager.h>
#include <android/binder_process.h>

#include "ndk/ibinder.h"
#include "rpc/name_service.h"
#include "rpc/thread_pool.h"

bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t numThreads) {
  bthal::rpc::NdkThreadPool().Configure(numThreads, /*caller_will_join=*/false);
  return true;
}

void ABinderProcess_startThreadPool() { bthal::rpc::NdkThreadPool().Start(); }

binder_exception_t AServiceManager_addService(AIBinder* binder, const char* instance) {
  if (binder == nullptr) return EX_ILLEGAL_ARGUMENT;
  const android::status_t status = bthal::rpc::Publish(instance, binder->binder());
  return status == android::OK ? EX_NONE : EX_TRANSACTION_FAILED;
}

AIBinder* AServiceManager_checkService(const char* instance) {
  return AIBinder::Own(AIBinder::Of(bthal::rpc::Find(instance, /*wait=*/false)));
}

AIBinder* AServiceManager_getService(const char* instance) {
  return AIBinder::Own(AIBinder::Of(bthal::rpc::Find(instance, /*wait=*/true)));
}
