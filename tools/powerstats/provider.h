// The power-statistics service of a simulated handset, as far as it takes residency from others.
#pragma once

#include <aidl/android/vendor/powerstats/BnTavioStateResidencyProvider.h>
#include <android-base/thread_annotations.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace powerstats {

using StateResidency = ::aidl::android::hardware::power::stats::StateResidency;

// What an entity answers.
struct Reading {
  std::string entity;
  std::vector<StateResidency> states;
  std::string mistake;  // why there are none; else empty
};

// Holds the callbacks of the entities that have registered, by name. Calls come on the threads of
// the binder pool. A callback whose process has died is dropped.
class Provider : public aidl::android::vendor::powerstats::BnTavioStateResidencyProvider {
 public:
  using Callback = aidl::android::vendor::powerstats::ITavioStateResidencyCallback;

  // Publishes one under the name that entities look for; null when another process has, or cannot
  // be asked. tell gets a line for each thing that happens: "registered NAME", "unregistered NAME",
  // "died NAME"; it runs on any thread, one at a time.
  static std::shared_ptr<Provider> Publish(std::function<void(const std::string& line)> tell);

  explicit Provider(std::function<void(const std::string& line)> tell);

  ndk::ScopedAStatus registerCallback(const std::string& name,
                                      const std::shared_ptr<Callback>& callback) override;
  ndk::ScopedAStatus unregisterCallback(const std::shared_ptr<Callback>& callback) override;

  // Asks every entity for its totals. Blocks until all have answered or died.
  std::vector<Reading> Read();

 private:
  void DropDead();

  const std::function<void(const std::string&)> tell_;
  const ndk::ScopedAIBinder_DeathRecipient death_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Callback>> entities_ GUARDED_BY(mutex_);
};

// The name of a state; those of the Bluetooth controller are known.
std::string StateName(const std::string& entity, int id);

}  // namespace powerstats
