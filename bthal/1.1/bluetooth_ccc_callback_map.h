#pragma once

#include <android-base/thread_annotations.h>
#include <hardware/nuvexa/bluetooth/ccc/1.1/IBluetoothCccCallback.h>

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation {

using ::android::sp;
using ::android::hardware::hidl_vec;
using V1_0::LmpEventId;
using Address = ::android::hardware::hidl_array<uint8_t, 6>;  // most significant byte first

struct AddrComp {
  bool operator()(const Address& a, const Address& b) const;
};
using AddressSet = std::set<Address, AddrComp>;

// A client's callback, as it was registered: one of the two is set.
struct CccCallbackWrapper {
  sp<V1_0::IBluetoothCccCallback> v1_0;
  sp<V1_1::IBluetoothCccCallback> v1_1;

  bool empty() const { return v1_0 == nullptr && v1_1 == nullptr; }
  // The object behind it, for what both versions have.
  sp<V1_0::IBluetoothCccCallback> object() const;
  // The same form of the same object.
  bool operator==(const CccCallbackWrapper& other) const;
};

// Told once when the process of a callback dies, while any address is registered with it.
class CallbackDeathRecipient final : public ::android::hardware::hidl_death_recipient {
 public:
  using Handler = std::function<void(const CccCallbackWrapper& callback)>;

  CallbackDeathRecipient(const Address& address, CccCallbackWrapper callback,
                         const Handler& handler);

  void serviceDied(uint64_t cookie,
                   const ::android::wp<::android::hidl::base::V1_0::IBase>& who) override;

  const CccCallbackWrapper& callback() const { return callback_; }
  AddressSet& addresses() { return addresses_; }

 private:
  const CccCallbackWrapper callback_;
  const Handler handler_;
  AddressSet addresses_;  // guarded by the lock of the map that it is in
};

// Which callback is registered for which link-layer events of which device. Changes come one at a
// time; the const functions may be called on any thread meanwhile. Its lock is a leaf.
class BluetoothCccCallbackMap {
 public:
  // handler: called on a thread of the runtime when a callback's process has died.
  explicit BluetoothCccCallbackMap(CallbackDeathRecipient::Handler handler)
      : handler_(std::move(handler)) {}

  // Replaces what address was registered with. False when the callback's process has died already:
  // the handler will not be called.
  bool insert(const Address& address, const hidl_vec<LmpEventId>& events,
              const CccCallbackWrapper& callback) EXCLUDES(lock_);
  // Returns what it was registered with; empty when it was not.
  CccCallbackWrapper erase(const Address& address) EXCLUDES(lock_);
  void clear() EXCLUDES(lock_);

  size_t size() const EXCLUDES(lock_);
  // Empty when the event of that device was not registered.
  CccCallbackWrapper getCallback(const Address& address, LmpEventId event) const EXCLUDES(lock_);
  // What is registered with a callback.
  AddressSet addresses(const CccCallbackWrapper& callback) const EXCLUDES(lock_);

 private:
  struct Callback {
    std::set<LmpEventId> events;
    CccCallbackWrapper callback;
  };
  using Recipients = std::vector<sp<CallbackDeathRecipient>>;

  static void Unlink(const sp<CallbackDeathRecipient>& recipient);
  Recipients::const_iterator Find(const CccCallbackWrapper& callback) const REQUIRES(lock_);

  const CallbackDeathRecipient::Handler handler_;
  mutable std::mutex lock_;
  std::map<Address, Callback, AddrComp> callbacks_ GUARDED_BY(lock_);
  Recipients recipients_ GUARDED_BY(lock_);  // one per callback
};

}  // namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation
