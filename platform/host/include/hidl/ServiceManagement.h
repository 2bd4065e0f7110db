// Registering and finding services. There is no service manager process: a service is a name in the
// folder of sockets, ROOT/run/bthal.
#pragma once

#include <android/hidl/manager/1.0/IServiceManager.h>
#include <hidl/HidlTransportSupport.h>
#include <sys/types.h>

#include <string>

namespace android::hardware {

// Null: notifications of registration are not offered.
sp<::android::hidl::manager::V1_0::IServiceManager> defaultServiceManager();

namespace details {

pid_t getPidIfSharable();

// Why the calling thread's last look-up found nothing, as errno: ENOENT, no process serves that
// name; ETIMEDOUT, its process does not answer; EACCES, it is not for this user; EUSERS, it has as
// many clients as it takes; EMFILE, it has no descriptor left. 0 when it found one.
int lastLookUpError();

// Publishes service under instance, for its own interface and each one that it descends from.
status_t registerAsServiceInternal(const sp<IBase>& service, const std::string& instance);

// Null when there is no such service; with wait, when there is still none after the time that
// BTHAL_LOOKUP_TIMEOUT_MS names (5 s when it names none).
sp<IBinder> getServiceBinder(const std::string& interface, const std::string& instance, bool wait);

template <typename BpType, typename Interface = typename BpType::Pure>
sp<Interface> getServiceInternal(const std::string& instance, bool retry, bool getStub) {
  if (getStub) return nullptr;  // no implementation lives in a library
  const sp<IBinder> binder = getServiceBinder(Interface::descriptor, instance, retry);
  if (binder == nullptr) return nullptr;
  if (binder->localBinder() == nullptr) return new BpType(binder);
  auto* stub = dynamic_cast<::android::hidl::base::V1_0::BnHwBase*>(binder->localBinder());
  return stub == nullptr ? nullptr : sp<Interface>(static_cast<Interface*>(stub->getImpl().get()));
}

}  // namespace details
}  // namespace android::hardware
