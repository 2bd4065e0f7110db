// Objects of the NDK interface, as the power-statistics service and its callbacks use them.
#include <aidl/android/vendor/powerstats/BnTavioStateResidencyProvider.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/test_root.h"
#include "support/child_process.h"
#include "support/wait.h"

namespace {

using aidl::android::hardware::power::stats::StateResidency;
using aidl::android::vendor::powerstats::BnTavioStateResidencyProvider;
using aidl::android::vendor::powerstats::ITavioStateResidencyCallback;
using test::ChildProcess;
using test::kDeadline;
using test::WaitFor;

class Provider : public BnTavioStateResidencyProvider {
 public:
  ndk::ScopedAStatus registerCallback(
      const std::string& name,
      const std::shared_ptr<ITavioStateResidencyCallback>& callback) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    callbacks_[name] = callback;
    return ndk::ScopedAStatus::ok();
  }
  ndk::ScopedAStatus unregisterCallback(
      const std::shared_ptr<ITavioStateResidencyCallback>& callback) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto i = callbacks_.begin(); i != callbacks_.end(); ++i) {
      if (i->second->asBinder() != callback->asBinder()) continue;
      callbacks_.erase(i);
      return ndk::ScopedAStatus::ok();
    }
    return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_ARGUMENT);
  }

  void Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    callbacks_.clear();
  }
  std::map<std::string, std::shared_ptr<ITavioStateResidencyCallback>> callbacks() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return callbacks_;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<ITavioStateResidencyCallback>> callbacks_;
};

TEST(NdkBinder, ProviderAndCallback_FindCallAndOutliveEachOther) {
  EXPECT_EQ(AServiceManager_checkService("power.stats-vendor"), nullptr);
  ChildProcess client({test::TestProgram("platform_test_residency")});
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
  const auto provider = ndk::SharedRefBase::make<Provider>();
  ASSERT_EQ(AServiceManager_addService(provider->asBinder().get(), "power.stats-vendor"), EX_NONE);

  // It waited for the service; it registers two callbacks and takes one back.
  ASSERT_TRUE(client.WaitForOutput("registered 1", kDeadline)) << client.Output();
  auto callbacks = provider->callbacks();
  ASSERT_EQ(callbacks.size(), 1u);
  std::shared_ptr<ITavioStateResidencyCallback> callback = callbacks.at("Bluetooth");
  EXPECT_TRUE(callback->isRemote());

  std::vector<StateResidency> states;
  ASSERT_TRUE(callback->getStateResidency(&states).isOk());
  ASSERT_EQ(states.size(), 4u);
  EXPECT_EQ(states[3].id, 3);
  EXPECT_EQ(states[3].totalTimeInStateMs, int64_t{1} << 35);
  EXPECT_EQ(states[3].totalStateEntryCount, -3);
  EXPECT_EQ(states[3].lastEntryTimestampMs, 1);
  const ndk::ScopedAStatus refused = callback->getStateResidency(&states);
  EXPECT_EQ(refused.getExceptionCode(), EX_SERVICE_SPECIFIC);
  EXPECT_EQ(refused.getServiceSpecificError(), 7);

  // Known in this process as the object itself.
  const ndk::SpAIBinder own(AServiceManager_checkService("power.stats-vendor"));
  EXPECT_EQ(own, provider->asBinder());
  EXPECT_EQ(Provider::fromBinder(own), provider);

  static std::atomic<int> died{0};
  const ndk::ScopedAIBinder_DeathRecipient recipient(
      AIBinder_DeathRecipient_new([](void* cookie) { died += *static_cast<int*>(cookie); }));
  int linked = 1;
  int unlinked = 100;
  AIBinder* binder = callback->asBinder().get();
  EXPECT_EQ(AIBinder_linkToDeath(binder, recipient.get(), &linked), STATUS_OK);
  EXPECT_EQ(AIBinder_linkToDeath(binder, recipient.get(), &unlinked), STATUS_OK);
  EXPECT_EQ(AIBinder_unlinkToDeath(binder, recipient.get(), &unlinked), STATUS_OK);
  client.Signal(SIGKILL);
  EXPECT_TRUE(WaitFor([] { return died == 1; }, kDeadline));
  EXPECT_FALSE(AIBinder_isAlive(binder));
  EXPECT_EQ(callback->getStateResidency(&states).getStatus(), STATUS_DEAD_OBJECT);
  EXPECT_EQ(AIBinder_linkToDeath(binder, recipient.get(), &linked), STATUS_DEAD_OBJECT);

  const int descriptors = test::CountDescriptors(getpid());
  provider->Clear();
  callbacks.clear();
  callback = nullptr;
  EXPECT_TRUE(WaitFor([&] { return test::CountDescriptors(getpid()) == descriptors - 1; }))
      << "a link to its death keeps the connection";
  EXPECT_EQ(died, 1);
}

}  // namespace
