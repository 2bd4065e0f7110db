// Between interfaces and the transport: thread pool, proxies, casts, value types in parcels.
#pragma once

#include <android/hidl/base/1.0/BnHwBase.h>
#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Static.h>
#include <hidl/Status.h>
#include <hwbinder/IBinder.h>
#include <hwbinder/Parcel.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace android::hardware {

using ::android::hidl::base::V1_0::IBase;

// The pool that serves HIDL calls: at most maxThreads threads, of which one is the thread that
// calls joinRpcThreadpool(), if callerWillJoin. Calls that arrive earlier wait.
void configureRpcThreadpool(size_t maxThreads, bool callerWillJoin);
// Serves calls on the calling thread; does not return.
void joinRpcThreadpool();

// The object's stub or proxy, made when it has none yet; null for null.
sp<IBinder> getOrCreateCachedBinder(IBase* interface);

// What proxies are made of.
class BpHwRefBase : public virtual RefBase {
 public:
  IBinder* remote() const { return mRemote.get(); }

 protected:
  explicit BpHwRefBase(const sp<IBinder>& binder) : mRemote(binder) {}

 private:
  const sp<IBinder> mRemote;
};

template <typename Interface>
class BpInterface : public Interface, public IInterface, public BpHwRefBase {
 public:
  explicit BpInterface(const sp<IBinder>& binder) : BpHwRefBase(binder) {}
  IBinder* onAsBinder() override { return remote(); }
};

// Hands the death of a binder on to a hidl_death_recipient.
class hidl_binder_death_recipient : public IBinder::DeathRecipient {
 public:
  hidl_binder_death_recipient(const sp<hidl_death_recipient>& recipient, uint64_t cookie,
                              const sp<IBase>& base)
      : mRecipient(recipient), mCookie(cookie), mBase(base) {}
  void binderDied(const wp<IBinder>& who) override;
  wp<hidl_death_recipient> getRecipient() const { return mRecipient; }

 private:
  const sp<hidl_death_recipient> mRecipient;
  const uint64_t mCookie;
  const wp<IBase> mBase;
};

namespace details {

// Whether the object is, or descends from, the interface named castTo; asks remote objects.
Return<bool> canCastInterface(IBase* interface, const char* castTo, bool emitError = false);

template <typename Child, typename Parent, typename BpChild>
Return<sp<Child>> castInterface(const sp<Parent>& parent, const char* childName, bool emitError) {
  if (parent == nullptr) return sp<Child>();
  Return<bool> castable = canCastInterface(parent.get(), childName, emitError);
  if (!castable.isOk()) {
    return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, castable.description().c_str());
  }
  if (!castable) return sp<Child>();
  if (parent->isRemote()) return sp<Child>(new BpChild(getOrCreateCachedBinder(parent.get())));
  return sp<Child>(static_cast<Child*>(parent.get()));
}

}  // namespace details

template <typename Interface, typename BpType, typename BnType>
sp<Interface> fromBinder(const sp<IBinder>& binder) {
  if (binder == nullptr) return nullptr;
  if (binder->localBinder() == nullptr) return new BpType(binder);
  auto* stub = dynamic_cast<::android::hidl::base::V1_0::BnHwBase*>(binder->localBinder());
  if (stub == nullptr) return nullptr;
  IBase* base = stub->getImpl().get();  // which binder keeps
  if (!details::canCastInterface(base, Interface::descriptor).withDefault(false)) {
    return nullptr;
  }
  return sp<Interface>(static_cast<Interface*>(base));
}

template <typename Interface>
sp<IBinder> toBinder(const sp<Interface>& interface) {
  return getOrCreateCachedBinder(interface.get());
}

// Whether both are the same object; two proxies of one object are.
template <typename A, typename B>
bool interfacesEqual(const sp<A>& a, const sp<B>& b) {
  if (a == nullptr || b == nullptr) return a == nullptr && b == nullptr;
  if (a->isRemote() != b->isRemote()) return false;
  if (a->isRemote()) return toBinder<IBase>(a) == toBinder<IBase>(b);
  return sp<IBase>(a) == sp<IBase>(b);
}

// Value types that lie in a buffer of a parcel, at offset in the buffer parent. Reading patches
// them in place.
status_t readEmbeddedFromParcel(const hidl_string& text, const Parcel& parcel, size_t parent,
                                size_t offset);
status_t writeEmbeddedToParcel(const hidl_string& text, Parcel* parcel, size_t parent,
                               size_t offset);
status_t readEmbeddedFromParcel(const hidl_handle& handle, const Parcel& parcel, size_t parent,
                                size_t offset);
status_t writeEmbeddedToParcel(const hidl_handle& handle, Parcel* parcel, size_t parent,
                               size_t offset);
status_t readFromParcel(Status* status, const Parcel& parcel);
status_t writeToParcel(const Status& status, Parcel* parcel);

namespace details {

struct ParcelAccess {
  template <typename T>
  static constexpr size_t vecPointerOffset() {
    return offsetof(hidl_vec<T>, mBuffer);
  }

  template <typename T>
  static status_t readVec(const hidl_vec<T>& received, const Parcel& parcel, size_t parent,
                          size_t offset, size_t* child) {
    auto& vec = const_cast<hidl_vec<T>&>(received);
    vec.mOwnsBuffer = false;  // whatever the sender says
    const void* data = nullptr;
    const status_t status = parcel.readEmbeddedBuffer(sizeof(T) * vec.mSize, child, parent,
                                                      offset + vecPointerOffset<T>(), &data);
    if (status != OK) vec.mSize = 0;
    vec.mBuffer = static_cast<T*>(const_cast<void*>(data));
    return status;
  }
  static status_t readString(const hidl_string& received, const Parcel& parcel, size_t parent,
                             size_t offset);
  static status_t readHandle(const hidl_handle& received, const Parcel& parcel, size_t parent);
};

}  // namespace details

template <typename T>
status_t readEmbeddedFromParcel(const hidl_vec<T>& vec, const Parcel& parcel, size_t parent,
                                size_t offset, size_t* child) {
  return details::ParcelAccess::readVec(vec, parcel, parent, offset, child);
}
template <typename T>
status_t writeEmbeddedToParcel(const hidl_vec<T>& vec, Parcel* parcel, size_t parent, size_t offset,
                               size_t* child) {
  return parcel->writeEmbeddedBuffer(vec.data(), sizeof(T) * vec.size(), child, parent,
                                     offset + details::ParcelAccess::vecPointerOffset<T>());
}

}  // namespace android::hardware
