// Owners of what binder_ibinder.h hands out.
#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_parcel.h>
#include <android/binder_status.h>

#include <string>
#include <utility>

namespace ndk {

// A counted reference to an object, or null.
class SpAIBinder {
 public:
  SpAIBinder() = default;
  explicit SpAIBinder(AIBinder* binder) : mBinder(binder) {}  // takes one reference over
  SpAIBinder(std::nullptr_t) {}                               // NOLINT
  SpAIBinder(const SpAIBinder& other) : mBinder(other.mBinder) {
    if (mBinder != nullptr) AIBinder_incStrong(mBinder);
  }
  SpAIBinder(SpAIBinder&& other) noexcept : mBinder(std::exchange(other.mBinder, nullptr)) {}
  ~SpAIBinder() { set(nullptr); }
  SpAIBinder& operator=(const SpAIBinder& other) {
    SpAIBinder copy(other);
    std::swap(mBinder, copy.mBinder);
    return *this;
  }
  SpAIBinder& operator=(SpAIBinder&& other) noexcept {
    std::swap(mBinder, other.mBinder);
    return *this;
  }

  void set(AIBinder* binder) {
    AIBinder* old = std::exchange(mBinder, binder);
    if (old != nullptr) AIBinder_decStrong(old);
  }
  AIBinder* get() const { return mBinder; }
  AIBinder** getR() { return &mBinder; }
  bool operator==(const SpAIBinder& other) const { return mBinder == other.mBinder; }
  bool operator!=(const SpAIBinder& other) const { return mBinder != other.mBinder; }
  bool operator<(const SpAIBinder& other) const { return mBinder < other.mBinder; }

 private:
  AIBinder* mBinder = nullptr;
};

namespace impl {

template <typename T, void (*Destroy)(T*)>
class ScopedAResource {
 public:
  explicit ScopedAResource(T* resource = nullptr) : mResource(resource) {}
  ScopedAResource(ScopedAResource&& other) noexcept
      : mResource(std::exchange(other.mResource, nullptr)) {}
  ScopedAResource& operator=(ScopedAResource&& other) noexcept {
    std::swap(mResource, other.mResource);
    return *this;
  }
  ScopedAResource(const ScopedAResource&) = delete;
  ScopedAResource& operator=(const ScopedAResource&) = delete;
  ~ScopedAResource() { set(nullptr); }

  void set(T* resource) {
    T* old = std::exchange(mResource, resource);
    if (old != nullptr) Destroy(old);
  }
  T* get() const { return mResource; }
  T** getR() { return &mResource; }

 private:
  T* mResource;
};

}  // namespace impl

using ScopedAParcel = impl::ScopedAResource<AParcel, AParcel_delete>;
using ScopedAIBinder_Weak = impl::ScopedAResource<AIBinder_Weak, AIBinder_Weak_delete>;
using ScopedAIBinder_DeathRecipient =
    impl::ScopedAResource<AIBinder_DeathRecipient, AIBinder_DeathRecipient_delete>;

class ScopedAStatus : public impl::ScopedAResource<AStatus, AStatus_delete> {
 public:
  using ScopedAResource::ScopedAResource;

  static ScopedAStatus ok() { return ScopedAStatus(AStatus_newOk()); }
  static ScopedAStatus fromExceptionCode(binder_exception_t exception) {
    return ScopedAStatus(AStatus_fromExceptionCode(exception));
  }
  static ScopedAStatus fromServiceSpecificError(int32_t error) {
    return ScopedAStatus(AStatus_fromServiceSpecificError(error));
  }

  bool isOk() const { return AStatus_isOk(get()); }
  binder_exception_t getExceptionCode() const { return AStatus_getExceptionCode(get()); }
  int32_t getServiceSpecificError() const { return AStatus_getServiceSpecificError(get()); }
  binder_status_t getStatus() const { return AStatus_getStatus(get()); }
  const char* getMessage() const { return AStatus_getMessage(get()); }
  std::string getDescription() const {
    if (isOk()) return "ok";
    return "exception " + std::to_string(getExceptionCode()) + ", status " +
           std::to_string(getStatus()) + ", error " + std::to_string(getServiceSpecificError()) +
           ": " + getMessage();
  }
};

}  // namespace ndk
