#pragma once

#include <android-base/thread_annotations.h>
#include <hwbinder/IBinder.h>
#include <hwbinder/Parcel.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "rpc/connection.h"

namespace bthal::rpc {

// An object of the peer.
class Proxy : public android::hardware::BpHwBinder {
 public:
  Proxy(std::shared_ptr<Connection> connection, uint32_t object)
      : connection_(std::move(connection)), object_(object) {}
  ~Proxy() override;

  android::status_t transact(uint32_t code, const android::hardware::Parcel& data,
                             android::hardware::Parcel* reply, uint32_t flags,
                             TransactCallback callback) override;
  android::status_t transactAhead(uint32_t code, const char* method,
                                  const android::hardware::Parcel& data,
                                  android::hardware::Parcel* reply) override;
  android::status_t linkToDeath(const android::sp<DeathRecipient>& recipient, void* cookie,
                                uint32_t flags) override;
  android::status_t unlinkToDeath(const android::wp<DeathRecipient>& recipient, void* cookie,
                                  uint32_t flags,
                                  android::wp<DeathRecipient>* out_recipient) override;
  bool isBinderAlive() const override { return !connection_->ended(); }

  // Calls the recipients that are linked, once, after the connection has ended.
  void NotifyRecipients();

 private:
  friend class Connection;
  // Of recipients: those of a client's object count as attached to this process.
  void CountLinks(int change);

  const std::shared_ptr<Connection> connection_;
  const uint32_t object_;
  std::atomic<uint32_t> received_{0};

  std::mutex mutex_;
  std::vector<android::sp<DeathRecipient>> recipients_ GUARDED_BY(mutex_);
};

// Notifies the recipients of these objects, in order, on a thread for that alone: a pool whose
// threads are all busy does not delay it.
void PostDeathNotifications(std::vector<android::sp<Proxy>> dead);

}  // namespace bthal::rpc
