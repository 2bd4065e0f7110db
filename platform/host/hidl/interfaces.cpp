// Interfaces: their names, their casts, their stubs.
#define LOG_TAG "hidl"

#include <android-base/logging.h>
#include <hidl/HidlTransportSupport.h>

#include <cstring>
#include <string>

namespace android::hardware {
namespace {

std::string Descriptor(IBase* interface) {
  std::string descriptor;
  const Return<void> done =
      interface->interfaceDescriptor([&](const hidl_string& text) { descriptor = text; });
  return done.isOk() ? descriptor : "";
}

}  // namespace

namespace details {

Return<bool> canCastInterface(IBase* interface, const char* castTo, bool emitError) {
  if (interface == nullptr) return false;
  if (strcmp(castTo, IBase::descriptor) == 0) return true;
  bool found = false;
  const Return<void> done = interface->interfaceChain(
      [&](const hidl_vec<hidl_string>& chain) { found = chain.contains(castTo); });
  if (done.isOk() || !emitError) return found;
  return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, done.description().c_str());
}

}  // namespace details

sp<IBinder> getOrCreateCachedBinder(IBase* interface) {
  if (interface == nullptr) return nullptr;
  if (interface->isRemote()) {
    auto* proxy = dynamic_cast<BpHwRefBase*>(interface);
    return proxy == nullptr ? nullptr : proxy->remote();
  }
  return details::gBnMap->getOrMake(interface, [interface]() -> sp<IBinder> {
    const std::string descriptor = Descriptor(interface);
    const auto make = details::getBnConstructorMap().get(descriptor, nullptr);
    if (make != nullptr) return make(interface);
    LOG(ERROR) << "there is no stub for " << descriptor;
    return nullptr;
  });
}

void hidl_binder_death_recipient::binderDied(const wp<IBinder>& /*who*/) {
  const sp<hidl_death_recipient> recipient = mRecipient;  // may unlink and drop this object
  if (recipient != nullptr) recipient->serviceDied(mCookie, mBase);
}

}  // namespace android::hardware
