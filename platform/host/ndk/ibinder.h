#pragma once

#include <android/binder_ibinder.h>
#include <hwbinder/IBinder.h>
#include <hwbinder/Parcel.h>

#include <atomic>
#include <string>

#include "rpc/thread_pool.h"

struct AIBinder_Class {
  const std::string descriptor;
  const AIBinder_Class_onCreate on_create;
  const AIBinder_Class_onDestroy on_destroy;
  const AIBinder_Class_onTransact on_transact;
};

// An object as the C interface shows it: a LocalBinder or a RemoteBinder.
struct AIBinder : public virtual android::RefBase {
 public:
  explicit AIBinder(const AIBinder_Class* type) : clazz(type) {}
  virtual android::sp<android::hardware::IBinder> binder() = 0;
  virtual bool is_remote() const = 0;
  virtual void* user_data() const { return nullptr; }

  // The one that stands for binder; null when it is null, or a local object of another kind.
  static android::sp<AIBinder> Of(const android::sp<android::hardware::IBinder>& binder);
  // One reference for the caller of a C function.
  static AIBinder* Own(const android::sp<AIBinder>& binder);

  std::atomic<const AIBinder_Class*> clazz;  // null until a remote object is associated with one
};

class LocalBinder : public AIBinder, public android::hardware::BHwBinder {
 public:
  LocalBinder(const AIBinder_Class* type, void* args)
      : AIBinder(type), user_data_(type->on_create(args)) {}
  ~LocalBinder() override;
  android::sp<android::hardware::IBinder> binder() override { return this; }
  bool is_remote() const override { return false; }
  void* user_data() const override { return user_data_; }
  bthal::rpc::ThreadPool& threadPool() override { return bthal::rpc::NdkThreadPool(); }
  android::status_t onTransact(uint32_t code, const android::hardware::Parcel& data,
                               android::hardware::Parcel* reply, uint32_t flags,
                               TransactCallback callback) override;

 private:
  void* const user_data_;
};

class RemoteBinder : public AIBinder {
 public:
  explicit RemoteBinder(const android::sp<android::hardware::IBinder>& remote)
      : AIBinder(nullptr), remote_(remote) {}
  ~RemoteBinder() override;
  android::sp<android::hardware::IBinder> binder() override { return remote_; }
  bool is_remote() const override { return true; }

 private:
  const android::sp<android::hardware::IBinder> remote_;
};
