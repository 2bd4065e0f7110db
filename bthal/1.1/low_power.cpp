#define LOG_TAG "bthal.zvkproto"

#include "low_power.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <log/log.h>

#include <cerrno>
#include <cstring>

#include "debug_central.h"
#include "transport_shim.h"
#include "wake_lock.h"

namespace android::hardware::bluetooth {
namespace {

using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::AnchorType;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
using V1_1::zvkbtlinux::activity::BtActivitiesLogger;
using V1_1::zvkbtlinux::activity::log_message_timestamp;

constexpr uint32_t kLongAwakeMs = 10001;

void Record(AnchorType type, const std::string& text) {
  DebugCentral::Get().UpdateRecord(type, text);
}

}  // namespace

void LowPower::Setup(const std::function<bool()>& set_sleep_mode) {
  ALOGI("lpm_setup");
  if (!hci::shim::LpmSetup()) return;
  auto timer = Timer::Create("bthal_lpm", [this] { OnTimer(); });
  if (timer == nullptr) {
    LOG(ERROR) << "lpm_setup: cannot create lpm_wake_timer";
    Record(AnchorType::kLpmTimerFailed, "lpm_setup: cannot create lpm_wake_timer");
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
    return;
  }
  const int error = errno;
  LOG(ERROR) << "lpm_setup: Unable to enable LPM controller:" << strerror(error) << " (" << error
             << ")";
  Record(AnchorType::kSleepModeFailed,
         base::StringPrintf("lpm_setup: Unable to enable LPM controller: %s (%d)", strerror(error),
                            error));
  Teardown();
}

std::unique_ptr<Timer> LowPower::Reset() {
  if (wake_lock_held_) wakelock_release();
  awake_ = false;
  return std::move(timer_);
}

void LowPower::Teardown() {
  hci::shim::LpmTeardown();
  std::unique_ptr<Timer> timer;  // outlives the lock: deleting it waits for a running tick
  std::lock_guard<std::mutex> guard(lock_);
  timer = Reset();
}

bool LowPower::WakeUp() {
  if (!hci::shim::IsLpmRunning()) return true;
  {
    std::lock_guard<std::mutex> guard(lock_);
    active_ = true;
    ++transmissions_;
    if (awake_) return true;
    Record(AnchorType::kLpmWakeUp, "LpmWakeUp");
    wakelock_acquire();
    if (hci::shim::LpmWakeUp()) {
      awake_ = true;
      last_statistics_.wake_time = log_message_timestamp();
      wake_time_ = std::chrono::steady_clock::now();
      if (timer_ != nullptr) timer_->Arm(kPeriod, kPeriod);
      return true;
    }
  }
  Teardown();
  return false;
}

void LowPower::OnTimer() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (active_) {
      active_ = false;
      return;
    }
    if (!awake_) return;  // torn down while this tick was under way
    Record(AnchorType::kLpmTimeout, "LpmWakeUpTimeout");
    if (hci::shim::LpmSuspend()) {
      awake_ = false;
      const auto duration = std::chrono::steady_clock::now() - wake_time_;
      last_statistics_.sleep_time = log_message_timestamp();
      last_statistics_.duration_ms = static_cast<uint32_t>(
          std::chrono::duration_cast<std::chrono::milliseconds>(duration).count());
      last_statistics_.transmissions = transmissions_;
      if (last_statistics_.duration_ms >= kLongAwakeMs) {
        BtActivitiesLogger::GetInstacne()->UpdateBthalWakelockStat(last_statistics_);
      }
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
    Record(AnchorType::kWakelockSkipped, base::StringPrintf("skip duplicated %s", __func__));
    return;
  }
  Record(AnchorType::kWakelockAcquire, __func__);
  WakeLock::Get().Acquire();
  wake_lock_held_ = true;
}

void LowPower::wakelock_release() {
  if (!wake_lock_held_) {
    Record(AnchorType::kWakelockSkipped, base::StringPrintf("skip duplicated %s", __func__));
    return;
  }
  Record(AnchorType::kWakelockRelease, __func__);
  WakeLock::Get().Release();
  wake_lock_held_ = false;
}

}  // namespace android::hardware::bluetooth
