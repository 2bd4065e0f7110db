#define LOG_TAG "bthal.ccc"

#include "bluetooth_ccc_callback_map.h"

#include <android-base/logging.h>
#include <hidl/HidlTransportSupport.h>

#include <algorithm>
#include <utility>

namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation {

using ::android::wp;
using ::android::hardware::interfacesEqual;
using ::android::hardware::Return;

bool AddrComp::operator()(const Address& a, const Address& b) const {
  return std::lexicographical_compare(a.data(), a.data() + a.elementCount(), b.data(),
                                      b.data() + b.elementCount());
}

sp<V1_0::IBluetoothCccCallback> CccCallbackWrapper::object() const {
  return v1_0 != nullptr ? v1_0 : sp<V1_0::IBluetoothCccCallback>(v1_1);
}

bool CccCallbackWrapper::operator==(const CccCallbackWrapper& other) const {
  return interfacesEqual(v1_0, other.v1_0) && interfacesEqual(v1_1, other.v1_1);
}

CallbackDeathRecipient::CallbackDeathRecipient(const Address& address, CccCallbackWrapper callback,
                                               const Handler& handler)
    : callback_(std::move(callback)), handler_(handler), addresses_{address} {}

void CallbackDeathRecipient::serviceDied(uint64_t /*cookie*/,
                                         const wp<::android::hidl::base::V1_0::IBase>& /*who*/) {
  LOG(WARNING) << "CallbackDeathRecipient::serviceDied";
  handler_(callback_);
}

BluetoothCccCallbackMap::Recipients::const_iterator BluetoothCccCallbackMap::Find(
    const CccCallbackWrapper& callback) const {
  return std::find_if(recipients_.begin(), recipients_.end(),
                      [&](const auto& recipient) { return recipient->callback() == callback; });
}

void BluetoothCccCallbackMap::Unlink(const sp<CallbackDeathRecipient>& recipient) {
  (void)recipient->callback().object()->unlinkToDeath(recipient).isOk();
}

bool BluetoothCccCallbackMap::insert(const Address& address, const hidl_vec<LmpEventId>& events,
                                     const CccCallbackWrapper& callback) {
  erase(address);
  sp<CallbackDeathRecipient> fresh;
  {
    std::lock_guard<std::mutex> guard(lock_);
    callbacks_[address] = {{events.begin(), events.end()}, callback};
    const auto known = Find(callback);
    if (known != recipients_.end()) {
      (*known)->addresses().insert(address);
      return true;
    }
    fresh = new CallbackDeathRecipient(address, callback, handler_);
    recipients_.push_back(fresh);
  }
  const Return<bool> linked = callback.object()->linkToDeath(fresh, 0);
  return linked.isOk() && static_cast<bool>(linked);
}

CccCallbackWrapper BluetoothCccCallbackMap::erase(const Address& address) {
  CccCallbackWrapper callback;
  sp<CallbackDeathRecipient> unused;
  {
    std::lock_guard<std::mutex> guard(lock_);
    const auto entry = callbacks_.find(address);
    if (entry == callbacks_.end()) return {};
    callback = entry->second.callback;
    callbacks_.erase(entry);
    const auto recipient = Find(callback);
    (*recipient)->addresses().erase(address);
    if ((*recipient)->addresses().empty()) {
      unused = *recipient;
      recipients_.erase(recipient);
    }
  }
  if (unused != nullptr) Unlink(unused);
  return callback;
}

void BluetoothCccCallbackMap::clear() {
  std::map<Address, Callback, AddrComp> callbacks;
  Recipients recipients;
  {
    std::lock_guard<std::mutex> guard(lock_);
    callbacks.swap(callbacks_);
    recipients.swap(recipients_);
  }
  for (const auto& recipient : recipients) Unlink(recipient);
}

size_t BluetoothCccCallbackMap::size() const {
  std::lock_guard<std::mutex> guard(lock_);
  return callbacks_.size();
}

CccCallbackWrapper BluetoothCccCallbackMap::getCallback(const Address& address,
                                                        LmpEventId event) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto entry = callbacks_.find(address);
  if (entry == callbacks_.end() || entry->second.events.count(event) == 0) return {};
  return entry->second.callback;
}

AddressSet BluetoothCccCallbackMap::addresses(const CccCallbackWrapper& callback) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto recipient = Find(callback);
  return recipient == recipients_.end() ? AddressSet{} : (*recipient)->addresses();
}

}  // namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation
