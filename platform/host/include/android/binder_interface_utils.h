// The bases of the classes that aidl generates.
#pragma once

#include <android-base/thread_annotations.h>
#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>

#include <memory>
#include <mutex>
#include <utility>

namespace ndk {

// An object held by std::shared_ptr from its first ref() or make() on.
class SharedRefBase {
 public:
  SharedRefBase() = default;
  virtual ~SharedRefBase() = default;
  SharedRefBase(const SharedRefBase&) = delete;
  SharedRefBase& operator=(const SharedRefBase&) = delete;

  template <typename Child>
  std::shared_ptr<Child> ref() {
    std::shared_ptr<SharedRefBase> self;
    std::call_once(mOwned, [&] {
      self.reset(this);
      mThis = self;
    });
    if (self == nullptr) self = mThis.lock();
    return std::static_pointer_cast<Child>(self);
  }

  template <typename T, typename... Arguments>
  static std::shared_ptr<T> make(Arguments&&... arguments) {
    return (new T(std::forward<Arguments>(arguments)...))->template ref<T>();
  }

 private:
  std::once_flag mOwned;
  std::weak_ptr<SharedRefBase> mThis;  // set once, by the first ref()
};

class ICInterface : public SharedRefBase {
 public:
  virtual SpAIBinder asBinder() = 0;
  virtual bool isRemote() = 0;

  // The implementation behind a local object; null for a remote one.
  static std::shared_ptr<ICInterface> asInterface(AIBinder* binder);
  static AIBinder_Class* defineClass(const char* descriptor, AIBinder_Class_onTransact onTransact);
};

// An implementation: it has one object, made when it is asked for and kept while it is held.
template <typename Interface>
class BnCInterface : public Interface {
 public:
  SpAIBinder asBinder() final {
    const std::lock_guard<std::mutex> lock(mMutex);
    SpAIBinder binder(mWeakBinder.get() == nullptr ? nullptr
                                                   : AIBinder_Weak_promote(mWeakBinder.get()));
    if (binder.get() == nullptr) {
      binder = createBinder();
      mWeakBinder.set(AIBinder_Weak_new(binder.get()));
    }
    return binder;
  }
  bool isRemote() final { return false; }

 protected:
  virtual SpAIBinder createBinder() = 0;

 private:
  std::mutex mMutex;
  ScopedAIBinder_Weak mWeakBinder GUARDED_BY(mMutex);
};

template <typename Interface>
class BpCInterface : public Interface {
 public:
  explicit BpCInterface(const SpAIBinder& binder) : mBinder(binder) {}
  SpAIBinder asBinder() final { return mBinder; }
  bool isRemote() final { return AIBinder_isRemote(mBinder.get()); }

 private:
  const SpAIBinder mBinder;
};

}  // namespace ndk
