// What local objects and the process have from the transport.
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <hwbinder/IBinder.h>
#include <hwbinder/ProcessState.h>
#include <unistd.h>

#include "rpc/incoming_call.h"
#include "rpc/name_service.h"
#include "rpc/thread_pool.h"
#include "system/readiness.h"

namespace android::hardware {

BHwBinder::BHwBinder() = default;
BHwBinder::~BHwBinder() = default;

status_t BHwBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags,
                             TransactCallback callback) {
  // Within one process, both were written last.
  data.setPosition(0);
  const status_t status = onTransact(code, data, reply, flags, std::move(callback));
  if (reply != nullptr) reply->setPosition(0);
  return status;
}

status_t BHwBinder::linkToDeath(const sp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                                uint32_t /*flags*/) {
  return INVALID_OPERATION;
}

status_t BHwBinder::unlinkToDeath(const wp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                                  uint32_t /*flags*/, wp<DeathRecipient>* /*outRecipient*/) {
  return INVALID_OPERATION;
}

bool BHwBinder::queueInOrder(std::unique_ptr<bthal::rpc::IncomingCall> call) {
  const std::lock_guard<std::mutex> lock(in_order_mutex_);
  in_order_calls_.push_back(std::move(call));
  return !std::exchange(in_order_running_, true);
}

std::unique_ptr<bthal::rpc::IncomingCall> BHwBinder::nextInOrder() {
  const std::lock_guard<std::mutex> lock(in_order_mutex_);
  if (in_order_calls_.empty()) {
    in_order_running_ = false;
    return nullptr;
  }
  std::unique_ptr<bthal::rpc::IncomingCall> call = std::move(in_order_calls_.front());
  in_order_calls_.pop_front();
  return call;
}

bool BHwBinder::queueBehind(std::unique_ptr<bthal::rpc::IncomingCall>& call) {
  const std::lock_guard<std::mutex> lock(in_order_mutex_);
  if (!in_order_running_) return false;
  in_order_calls_.push_back(std::move(call));
  return true;
}

void BHwBinder::dropObsolete() {
  std::vector<std::unique_ptr<bthal::rpc::IncomingCall>> dropped;  // after the lock is free
  const std::lock_guard<std::mutex> lock(in_order_mutex_);
  dropped = bthal::rpc::TakeObsolete(in_order_calls_);
}

ProcessState* ProcessState::self() {
  static ProcessState state;
  return &state;
}

void ProcessState::startThreadPool() { bthal::rpc::HidlThreadPool().Start(); }

void configureRpcThreadpool(size_t maxThreads, bool callerWillJoin) {
  bthal::rpc::HidlThreadPool().Configure(maxThreads, callerWillJoin);
}

// A service joins when all its objects have names.
void joinRpcThreadpool() {
  bthal::TellReadiness();
  bthal::rpc::HidlThreadPool().Join();
}

sp<::android::hidl::manager::V1_0::IServiceManager> defaultServiceManager() { return nullptr; }

namespace details {

pid_t getPidIfSharable() { return getpid(); }

status_t registerAsServiceInternal(const sp<IBase>& service, const std::string& instance) {
  if (service == nullptr) return UNEXPECTED_NULL;
  const sp<IBinder> binder = getOrCreateCachedBinder(service.get());
  if (binder == nullptr) return UNKNOWN_ERROR;
  status_t status = OK;
  const Return<void> done = service->interfaceChain([&](const hidl_vec<hidl_string>& chain) {
    for (const hidl_string& name : chain) {
      if (status != OK || name == IBase::descriptor) break;
      status = bthal::rpc::Publish(std::string(name) + "/" + instance, binder);
    }
  });
  return done.isOk() ? status : status_t{UNKNOWN_ERROR};
}

sp<IBinder> getServiceBinder(const std::string& interface, const std::string& instance, bool wait) {
  return bthal::rpc::Find(interface + "/" + instance, wait);
}

int lastLookUpError() { return bthal::rpc::LastFindError(); }

}  // namespace details
}  // namespace android::hardware
