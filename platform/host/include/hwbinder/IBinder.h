// Objects that can be called from another process: local ones (stubs) and remote ones (proxies).
#pragma once

#include <android-base/thread_annotations.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace bthal::rpc {
class IncomingCall;
class ThreadPool;
ThreadPool& HidlThreadPool();
}  // namespace bthal::rpc

namespace android::hardware {

class BHwBinder;
class BpHwBinder;
class Parcel;

class IBinder : public virtual RefBase {
 public:
  enum { FLAG_ONEWAY = 0x01 };

  // Takes the reply while the objects that it refers to still live.
  using TransactCallback = std::function<void(Parcel&)>;

  class DeathRecipient : public virtual RefBase {
   public:
    virtual void binderDied(const wp<IBinder>& who) = 0;
  };

  virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0,
                            TransactCallback callback = nullptr) = 0;
  // A call without results that may run ahead of its answer; interfaces/run_ahead.txt names those.
  // To an object of a client it returns once it is sent, in order with the others of this kind; see
  // Connection::CallAhead. To any other object it is an ordinary call.
  virtual status_t transactAhead(uint32_t code, const char* /*method*/, const Parcel& data,
                                 Parcel* reply) {
    return transact(code, data, reply);
  }
  // recipient is called once, on a thread for that alone, when the object's process has gone. When
  // it has gone already, the result is DEAD_OBJECT and recipient is not called.
  virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                               uint32_t flags = 0) = 0;
  virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0,
                                 wp<DeathRecipient>* outRecipient = nullptr) = 0;
  virtual bool isBinderAlive() const = 0;
  virtual BHwBinder* localBinder() { return nullptr; }
  virtual BpHwBinder* remoteBinder() { return nullptr; }
};

// An object of this process. Calls from other processes arrive in onTransact(), on a thread of
// threadPool() or on a blocked thread of the same chain of calls; oneway calls and those that run
// ahead one at a time and in order.
class BHwBinder : public IBinder {
 public:
  BHwBinder();
  ~BHwBinder() override;

  status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0,
                    TransactCallback callback = nullptr) override;
  status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                       uint32_t flags = 0) override;
  status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;
  bool isBinderAlive() const override { return true; }
  BHwBinder* localBinder() override { return this; }

  virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0,
                              TransactCallback callback = nullptr) = 0;
  void setRequestingSid(bool /*requesting*/) {}

  virtual bthal::rpc::ThreadPool& threadPool() { return bthal::rpc::HidlThreadPool(); }

  // For the transport: queues a call that runs in order. True when none does: the caller posts a
  // task that runs nextInOrder() until it is null.
  bool queueInOrder(std::unique_ptr<bthal::rpc::IncomingCall> call);
  std::unique_ptr<bthal::rpc::IncomingCall> nextInOrder();
  // Queues call behind those that run in order. False, and the caller keeps it, when there is none.
  bool queueBehind(std::unique_ptr<bthal::rpc::IncomingCall>& call);
  // Destroys those whose client has gone.
  void dropObsolete();

 protected:
  int mSchedPolicy = 0;
  int mSchedPriority = 0;

 private:
  std::mutex in_order_mutex_;
  std::deque<std::unique_ptr<bthal::rpc::IncomingCall>> in_order_calls_ GUARDED_BY(in_order_mutex_);
  bool in_order_running_ GUARDED_BY(in_order_mutex_) = false;
};

// An object of another process; the transport's proxies derive from it.
class BpHwBinder : public IBinder {
 public:
  BpHwBinder* remoteBinder() override { return this; }
};

class IInterface : public virtual RefBase {
 public:
  static IBinder* asBinder(IInterface* interface) {
    return interface == nullptr ? nullptr : interface->onAsBinder();
  }
  static sp<IBinder> asBinder(const sp<IInterface>& interface) { return asBinder(interface.get()); }

 protected:
  virtual IBinder* onAsBinder() = 0;
};

}  // namespace android::hardware
