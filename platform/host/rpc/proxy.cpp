#include "rpc/proxy.h"

#include <hidl/HidlTransportSupport.h>

#include <algorithm>
#include <utility>

#include "rpc/attached_clients.h"
#include "rpc/thread_pool.h"

namespace bthal::rpc {

using android::sp;
using android::status_t;
using android::wp;
using android::hardware::Parcel;

Proxy::~Proxy() {
  CountLinks(-static_cast<int>(recipients_.size()));
  connection_->Release(this, object_, received_);
}

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
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (connection_->ended()) return android::DEAD_OBJECT;
    recipients_.push_back(recipient);
  }
  CountLinks(1);
  return android::OK;
}

status_t Proxy::unlinkToDeath(const wp<DeathRecipient>& recipient, void* /*cookie*/,
                              uint32_t /*flags*/, wp<DeathRecipient>* out_recipient) {
  sp<DeathRecipient> removed;  // dropped after the lock is free
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (connection_->ended()) return android::DEAD_OBJECT;
    const auto found = std::find_if(
        recipients_.begin(), recipients_.end(),
        [&](const sp<DeathRecipient>& linked) { return wp<DeathRecipient>(linked) == recipient; });
    if (found == recipients_.end()) return android::NAME_NOT_FOUND;
    if (out_recipient != nullptr) *out_recipient = *found;
    removed = std::move(*found);
    recipients_.erase(found);
  }
  CountLinks(-1);
  return android::OK;
}

void Proxy::CountLinks(int change) {
  if (change != 0 && connection_->peer_side() == Connection::Side::kClient) CountAttached(change);
}

void Proxy::NotifyRecipients() {
  std::vector<sp<DeathRecipient>> recipients;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    recipients.swap(recipients_);
  }
  CountLinks(-static_cast<int>(recipients.size()));
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
