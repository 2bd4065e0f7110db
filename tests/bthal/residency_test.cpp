// The activity watcher against its literal data, with a provider in this process.

#include <aidl/android/vendor/powerstats/BnTavioStateResidencyProvider.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "bthal/command_sender.h"
#include "bthal/sequence_runner.h"
#include "controller_activity_watcher.h"
#include "support/wait.h"

namespace {

using namespace android::hardware::bluetooth;
using activitywatcher::ControllerActivityWatcher;
using aidl::android::hardware::power::stats::StateResidency;
using aidl::android::vendor::powerstats::BnTavioStateResidencyProvider;
using aidl::android::vendor::powerstats::ITavioStateResidencyCallback;
using android::sp;
using Callback = std::shared_ptr<ITavioStateResidencyCallback>;

class Provider : public BnTavioStateResidencyProvider {
 public:
  ndk::ScopedAStatus registerCallback(const std::string& name, const Callback& callback) override {
    const std::lock_guard<std::mutex> guard(lock_);
    EXPECT_EQ(name, "Bluetooth");
    EXPECT_EQ(callback_, nullptr) << "registered twice";
    callback_ = callback;
    ++calls_;
    return ndk::ScopedAStatus::ok();
  }
  ndk::ScopedAStatus unregisterCallback(const Callback& callback) override {
    const std::lock_guard<std::mutex> guard(lock_);
    EXPECT_EQ(callback_, callback);
    callback_ = nullptr;
    ++calls_;
    return ndk::ScopedAStatus::ok();
  }
  Callback callback() {
    const std::lock_guard<std::mutex> guard(lock_);
    return callback_;
  }
  int calls() {
    const std::lock_guard<std::mutex> guard(lock_);
    return calls_;
  }
  // Answers nobody while it is locked.
  std::mutex& lock() { return lock_; }

 private:
  std::mutex lock_;
  Callback callback_;
  int calls_ = 0;
};

std::string ToText(const StateResidency& state) {
  return std::to_string(state.totalTimeInStateMs) + "/" +
         std::to_string(state.totalStateEntryCount) + "/" +
         std::to_string(state.lastEntryTimestampMs);
}

int64_t BootTimeMs() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

std::shared_ptr<Provider> NewProvider() {
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
  const auto provider = ndk::SharedRefBase::make<Provider>();
  EXPECT_EQ(AServiceManager_addService(provider->asBinder().get(), "power.stats-vendor"), EX_NONE);
  return provider;
}

TEST(Residency, SequencesAreExact) {
  const auto provider = NewProvider();
  for (const test::Vector& sequence : test::LoadVectors("residency.txt")) {
    SCOPED_TRACE(sequence.name);
    test::SequenceRunner runner("bthal.activitywatcher");
    const sp<test::CommandSender> hal = new test::CommandSender;
    hal->Use(runner.flow().shared_from_this());
    const auto watcher = ndk::SharedRefBase::make<ControllerActivityWatcher>(hal);
    ASSERT_TRUE(watcher->initialize());
    runner.Run(
        "log D initialize: Fetching PowerStats service ; log D operator(): Wait for controller "
        "enabled before registering to PowerStats service");
    runner.Define("start", [&](const std::string&) {
      runner.flow().RegisterEventWatcher(watcher.get());
      // A start while it is on already changes nothing.
      const int64_t known = watcher->boot_time_offset_ms(), before = BootTimeMs();
      EXPECT_TRUE(watcher->startWatcher());
      EXPECT_GE(watcher->boot_time_offset_ms(), known == 0 ? before : known);
      EXPECT_LE(watcher->boot_time_offset_ms(), known == 0 ? BootTimeMs() : known);
      EXPECT_EQ(provider->callback(), watcher);
    });
    runner.Define("stop", [&](const std::string&) {
      EXPECT_TRUE(watcher->stopWatcher());
      EXPECT_EQ(watcher->boot_time_offset_ms(), 0);
      runner.flow().UnregisterEventWatcher(watcher.get());
      EXPECT_EQ(provider->callback(), nullptr);
    });
    runner.Define("get", [&](const std::string& expected) {
      std::vector<StateResidency> states;
      EXPECT_TRUE(watcher->getStateResidency(&states).isOk());
      ASSERT_EQ(states.size(), 4u);
      std::istringstream in(expected);
      for (int id = 0; id < 4; ++id) {
        std::string text;
        in >> text;
        const size_t sign = text.find('+');
        if (sign != std::string::npos) {
          text = text.substr(0, sign) +
                 std::to_string(std::stoll(text.substr(sign)) + watcher->boot_time_offset_ms());
        }
        EXPECT_EQ(ToText(states[static_cast<size_t>(id)]), text) << "state " << id;
        EXPECT_EQ(states[static_cast<size_t>(id)].id, id);
      }
    });
    runner.Run(sequence.fields[0]);
    EXPECT_EQ(runner.LinesLeft(), std::vector<std::string>{});
    runner.flow().UnregisterEventWatcher(watcher.get());
    watcher->stopWatcher();
  }
}

// Bluetooth goes off and on while the provider is found. It is asked for no more than it is to do.
TEST(Residency, OffWhileTheProviderIsFound_TakesNothingBackThatWasNotDone) {
  const auto provider = NewProvider();
  for (int i = 0; i < 300; ++i) {
    const auto watcher = ndk::SharedRefBase::make<ControllerActivityWatcher>(nullptr);
    ASSERT_TRUE(watcher->initialize());
    while (!watcher->startWatcher()) watcher->stopWatcher();
    ASSERT_TRUE(watcher->stopWatcher());
    ASSERT_EQ(provider->callback(), nullptr);
  }
}

// A provider that does not answer: the first call is given up after two seconds, the next ones at
// once. When it answers again, it is told what holds by then, and no more than that.
TEST(Residency, FrozenProvider_HoldsNobodyUpAndIsToldLater) {
  const auto provider = NewProvider();
  auto watcher = ndk::SharedRefBase::make<ControllerActivityWatcher>(nullptr);
  ASSERT_TRUE(watcher->initialize());
  const struct {
    std::string steps;  // + on, - off
    int calls;
    bool registered;
  } rows[] = {{"-+", 2, true}, {"-+-", 1, false}, {"+-", 2, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.steps);
    // It is found, and its answer to the row before is no longer on its way.
    ASSERT_TRUE(test::WaitFor([&] {
      const int calls = provider->calls();
      const bool from_on = row.steps[0] == '-';
      return (from_on ? watcher->stopWatcher() : watcher->startWatcher()) &&
             (from_on ? watcher->startWatcher() : watcher->stopWatcher()) &&
             provider->calls() == calls + 2;
    }));
    const int before = provider->calls();
    {
      const std::lock_guard<std::mutex> frozen(provider->lock());
      const auto start = std::chrono::steady_clock::now();
      for (const char step : row.steps) {
        EXPECT_FALSE(step == '+' ? watcher->startWatcher() : watcher->stopWatcher());
      }
      const auto time = std::chrono::steady_clock::now() - start;
      EXPECT_GE(time, std::chrono::milliseconds(1900));
      EXPECT_LT(time, std::chrono::milliseconds(3500));
    }
    EXPECT_TRUE(test::WaitFor([&] { return provider->calls() == before + row.calls; }));
    EXPECT_EQ(provider->callback() != nullptr, row.registered);
  }
  const int calls = provider->calls();
  const std::weak_ptr<ControllerActivityWatcher> left = watcher;
  watcher = nullptr;
  EXPECT_TRUE(test::WaitFor([&] { return left.expired(); })) << "its thread still runs";
  EXPECT_EQ(provider->calls(), calls);
}

}  // namespace
