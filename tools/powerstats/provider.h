// The power-statistics service of a simulated handset, as far as it takes residency from others.
#pragma once

#include <aidl/android/vendor/powerstats/BnTavioStateResidencyProvider.h>
#include <android-base/thread_annotations.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace powerstats {

// Its name among the services.
inline constexpr char kInstance[] = "power.stats-vendor";

// Holds the callbacks of the entities that have registered, by name. Calls come on the threads of
// the binder pool. A callback whose process has died is dropped.
class Provider : public aidl::android::vendor::powerstats::BnTavioStateResidencyProvider {
 public:
  using Callback = aidl::android::vendor::powerstats::ITavioStateResidencyCallback;

  // tell gets a line for each thing that happens: "registered NAME", "unregistered NAME",
  // "died NAME". It runs on any thread, one at a time.
  explicit Provider(std::function<void(const std::string& line)> tell);

  ndk::ScopedAStatus registerCallback(const std::string& name,
                                      const std::shared_ptr<Callback>& callback) override;
  ndk::ScopedAStatus unregisterCallback(const std::shared_ptr<Callback>& callback) override;

  // Asks every entity for its totals: one line a state, or one that says why there is none. Blocks
  // until all have answered or died.
  std::string Read();

 private:
  void DropDead();

  const std::function<void(const std::string&)> tell_;
  const ndk::ScopedAIBinder_DeathRecipient death_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Callback>> entities_ GUARDED_BY(mutex_);
};

}  // namespace powerstats
