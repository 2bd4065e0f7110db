// Process-wide tables that generated constructors and destructors use before and after main():
// each is built on first use and never destroyed.
#pragma once

#include <android-base/thread_annotations.h>
#include <hidl/HidlSupport.h>
#include <hwbinder/IBinder.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace android::hardware::details {

using IBase = ::android::hidl::base::V1_0::IBase;

template <typename Key, typename Value>
class ConcurrentMap {
 public:
  void set(const Key& key, Value value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    map_[key] = std::move(value);
  }
  Value get(const Key& key, const Value& fallback) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = map_.find(key);
    return found == map_.end() ? fallback : found->second;
  }
  void erase(const Key& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    map_.erase(key);
  }

 private:
  mutable std::mutex mutex_;
  std::map<Key, Value> map_ GUARDED_BY(mutex_);
};

// By interface name: makes the stub (Bn) or the passthrough wrapper (Bs) of an implementation.
using BnConstructorMap = ConcurrentMap<std::string, std::function<sp<IBinder>(void*)>>;
using BsConstructorMap = ConcurrentMap<std::string, std::function<sp<IBase>(void*)>>;
BnConstructorMap& getBnConstructorMap();
BsConstructorMap& getBsConstructorMap();

// The stub of each implementation, for as long as the stub is held: an implementation has one
// identity towards other processes.
class BnMap {
 public:
  sp<IBinder> getOrMake(const IBase* implementation, const std::function<sp<IBinder>()>& make);
  // Called by the stub's destructor.
  void eraseIfEqual(const IBase* implementation, const BHwBinder* stub);

 private:
  struct Entry {
    wp<IBinder> binder;
    const BHwBinder* stub;
  };
  std::mutex mutex_;
  std::map<const IBase*, Entry> stubs_ GUARDED_BY(mutex_);
};

struct SchedPrio {
  int sched_policy;
  int prio;
};
// Scheduling of calls and caller identities are not offered: stubs get what they ask with.
struct ServicePrioMap {
  SchedPrio get(const wp<IBase>& /*service*/, SchedPrio fallback) const { return fallback; }
};
struct ServiceSidMap {
  bool get(const wp<IBase>& /*service*/, bool fallback) const { return fallback; }
};

template <typename T>
struct NeverDestroyed {
  T* operator->() const {
    static T* const object = new T;
    return object;
  }
};
inline constexpr NeverDestroyed<BnMap> gBnMap{};
inline constexpr NeverDestroyed<ServicePrioMap> gServicePrioMap{};
inline constexpr NeverDestroyed<ServiceSidMap> gServiceSidMap{};

}  // namespace android::hardware::details
