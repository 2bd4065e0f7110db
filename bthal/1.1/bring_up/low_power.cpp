#define LOG_TAG "bthal.zvkproto"

#include "bring_up/low_power.h"

#include <android-base/logging.h>
#include <log/log.h>

#include <cerrno>
#include <cstring>

#include "base/wake_lock.h"
#include "evidence/bring_up_steps.h"
#include "evidence/record.h"

namespace android::hardware::bluetooth {
namespace {

constexpr uint32_t kLongAwakeMs = 10001;

}  // namespace

void LowPower::Setup(const std::function<bool()>& set_sleep_mode) {
  ALOGI("lpm_setup");
  evidence::BringUpSteps::Get().Begin("low power");
  if (!line_.setup()) return evidence::BringUpSteps::Get().Fail();
  auto timer = Timer::Create("bthal_lpm", [this] { OnTimer(); });
  if (timer == nullptr) {
    BTHAL_LOG_AND_RECORD(ALOGE, AnchorType::kLpmTimerFailed,
                         "lpm_setup: cannot create lpm_wake_timer");
    evidence::BringUpSteps::Get().Fail();
    Teardown();
    return;
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    timer_.swap(timer);
  }
  timer.reset();
  if (set_sleep_mode()) {
    LOG(INFO) << "lpm_setup: LPM Enabled";
    evidence::BringUpSteps::Get().End();
    return;
  }
  const int error = errno;
  evidence::BringUpSteps::Get().Fail();
  LOG(ERROR) << "lpm_setup: Unable to enable LPM controller:" << strerror(error) << " (" << error
             << ")";
  evidence::RecordFormat(AnchorType::kSleepModeFailed,
                         "lpm_setup: Unable to enable LPM controller: %s (%d)", strerror(error),
                         error);
  Teardown();
}

std::unique_ptr<Timer> LowPower::Reset() {
  if (wake_lock_held_) wakelock_release();
  awake_ = false;
  return std::move(timer_);
}

void LowPower::Teardown() {
  line_.teardown();
  std::unique_ptr<Timer> timer;  // outlives the lock: deleting it waits for a running tick
  std::lock_guard<std::mutex> guard(lock_);
  timer = Reset();
}

bool LowPower::WakeUp() {
  {
    // A teardown comes wholly before or wholly after this.
    std::lock_guard<std::mutex> guard(lock_);
    ++under_way_;
    if (timer_ == nullptr || !line_.is_running()) return true;
    active_ = true;
    ++transmissions_;
    if (awake_) return true;
    evidence::Record(AnchorType::kLpmWakeUp, "LpmWakeUp");
    wakelock_acquire();
    if (line_.wake_up()) {
      awake_ = true;
      wake_time_ = evidence::TimestampNow();
      wake_start_ = std::chrono::steady_clock::now();
      // A Timer that exists can be armed: this does not fail.
      if (!timer_->Arm(kPeriod, kPeriod)) {
        BTHAL_LOG_AND_RECORD(ALOGE, AnchorType::kLpmTimerFailed,
                             "LpmWakeUp: cannot arm lpm_wake_timer");
      }
      return true;
    }
  }
  Teardown();
  return false;
}

void LowPower::Sent() {
  std::lock_guard<std::mutex> guard(lock_);
  --under_way_;
  active_ = true;
}

void LowPower::OnTimer() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (active_ || under_way_ > 0) {
      active_ = false;
      return;
    }
    if (!awake_) return;  // torn down while this tick was under way
    evidence::Record(AnchorType::kLpmTimeout, "LpmWakeUpTimeout");
    if (line_.suspend()) {
      awake_ = false;
      const auto duration = std::chrono::duration_cast<std::chrono::milliseconds>(
          std::chrono::steady_clock::now() - wake_start_);
      const Awake awake{wake_time_, evidence::TimestampNow(),
                        static_cast<uint32_t>(duration.count()), transmissions_};
      if (awake.duration_ms >= kLongAwakeMs) long_awake_(awake);
      transmissions_ = 0;
      if (timer_ != nullptr) timer_->Disarm();
      wakelock_release();
      return;
    }
  }
  Teardown();
}

void LowPower::wakelock_acquire() {
  if (wake_lock_held_) {
    evidence::RecordFormat(AnchorType::kWakelockSkipped, "skip duplicated %s", __func__);
    return;
  }
  evidence::Record(AnchorType::kWakelockAcquire, __func__);
  WakeLock::Get().Acquire();
  wake_lock_held_ = true;
}

void LowPower::wakelock_release() {
  if (!wake_lock_held_) {
    evidence::RecordFormat(AnchorType::kWakelockSkipped, "skip duplicated %s", __func__);
    return;
  }
  evidence::Record(AnchorType::kWakelockRelease, __func__);
  WakeLock::Get().Release();
  wake_lock_held_ = false;
}

}  // namespace android::hardware::bluetooth
