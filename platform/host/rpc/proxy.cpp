#include "rpc/proxy.h"

#include <hidl/HidlTransportSupport.h>

#include <utility>

#include "rpc/thread_pool.h"

namespace bthal::rpc {

using android::sp;
using android::status_t;
using android::wp;
using android::hardware::Parcel;

status_t Proxy::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags,
                         TransactCallback callback) {
  const status_t status = connection_->Call(object_, code, data, reply, flags);
  if (status == android::OK && callback != nullptr && reply != nullptr) callback(*reply);
  return status;
}

status_t Proxy::transactAhead(uint32_t code, const char* method, const Parcel& data,
                              Parcel* reply) {
  if (!connection_->CanCallAhead()) return transact(code, data, reply, 0, nullptr);
  const status_t status = connection_->CallAhead(object_, code, method, data);
  if (status == android::OK) {
    android::hardware::writeToParcel(android::hardware::Status::ok(), reply);
    reply->setPosition(0);
  }
  return status;
}

status_t Proxy::linkToDeath(const sp<DeathRecipient>& recipient, void* /*cookie*/,
                            uint32_t /*flags*/) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (connection_->ended()) return android::DEAD_OBJECT;
  recipients_.push_back(recipient);
  return android::OK;
}

status_t Proxy::unlinkToDeath(const wp<DeathRecipient>& recipient, void* /*cookie*/,
                              uint32_t /*flags*/, wp<DeathRecipient>* out_recipient) {
  sp<DeathRecipient> removed;  // dropped after the lock is free
  const std::lock_guard<std::mutex> lock(mutex_);
  if (connection_->ended()) return android::DEAD_OBJECT;
  for (auto i = recipients_.begin(); i != recipients_.end(); ++i) {
    if (wp<DeathRecipient>(*i) != recipient) continue;
    if (out_recipient != nullptr) *out_recipient = *i;
    removed = std::move(*i);
    recipients_.erase(i);
    return android::OK;
  }
  return android::NAME_NOT_FOUND;
}

void Proxy::NotifyRecipients() {
  std::vector<sp<DeathRecipient>> recipients;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    recipients.swap(recipients_);
  }
  for (const sp<DeathRecipient>& recipient : recipients) recipient->binderDied(this);
}

void PostDeathNotifications(std::vector<sp<Proxy>> dead) {
  static ThreadPool* const thread = [] {
    auto* pool = new ThreadPool("rpc-death", ThreadPool::Idle::kSleep);
    pool->Start();
    pool->Post([] {});  // starts its thread
    return pool;
  }();
  if (dead.empty()) return;
  thread->Post([dead = std::move(dead)] {
    for (const sp<Proxy>& proxy : dead) proxy->NotifyRecipients();
  });
}

}  // namespace bthal::rpc
