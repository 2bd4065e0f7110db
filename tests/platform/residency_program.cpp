// A process whose states the power-statistics service asks for. usage: platform_test_residency
#include <aidl/android/vendor/powerstats/BnTavioStateResidencyCallback.h>
#include <aidl/android/vendor/powerstats/ITavioStateResidencyProvider.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

using aidl::android::hardware::power::stats::StateResidency;
using aidl::android::vendor::powerstats::BnTavioStateResidencyCallback;
using aidl::android::vendor::powerstats::ITavioStateResidencyProvider;

namespace {

class Callback : public BnTavioStateResidencyCallback {
 public:
  ndk::ScopedAStatus getStateResidency(std::vector<StateResidency>* states) override {
    ++asked_;
    if (asked_ == 2) return ndk::ScopedAStatus::fromServiceSpecificError(7);
    for (int id = 0; id < 4; ++id) {
      StateResidency state{};
      state.id = id;
      state.totalTimeInStateMs = int64_t{1} << (32 + id);
      state.totalStateEntryCount = -id;
      state.lastEntryTimestampMs = asked_;
      states->push_back(state);
    }
    return ndk::ScopedAStatus::ok();
  }

 private:
  int asked_ = 0;  // calls come one at a time: the pool has one thread
};

}  // namespace

int main() {
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
  const auto provider = ITavioStateResidencyProvider::fromBinder(
      ndk::SpAIBinder(AServiceManager_getService("power.stats-vendor")));
  if (provider == nullptr) return 1;
  const auto callback = ndk::SharedRefBase::make<Callback>();
  const auto other = ndk::SharedRefBase::make<Callback>();
  const bool ok = provider->registerCallback("Bluetooth", callback).isOk() &&
                  provider->registerCallback("Other", other).isOk() &&
                  provider->unregisterCallback(other).isOk();
  printf("registered %d\n", ok);
  fflush(stdout);
  for (;;) pause();
}
