#pragma once

#include <aidl/android/vendor/powerstats/BnTavioStateResidencyCallback.h>
#include <aidl/android/vendor/powerstats/ITavioStateResidencyProvider.h>
#include <android-base/thread_annotations.h>
#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

#include "hci/event_watcher.h"

namespace android::hardware::bluetooth::activitywatcher {

using ::aidl::android::hardware::power::stats::StateResidency;

std::ostream& operator<<(std::ostream& out, const StateResidency& state);

// Tells the power-statistics service how long the controller was idle, active, transmitting and
// receiving (states 0 to 3) since the process started. Each query is answered with the totals so
// far, and makes the watcher query the controller for newer ones. One per process, owned by the HAL
// object.
// The provider asks on the binder thread, the controller answers on the reader thread; while there
// is no provider, a thread of its own looks for one every second. The provider is called on one
// more thread, one call at a time: a provider that does not answer holds up no caller for longer
// than two seconds, and is told the latest state once it answers again.
class ControllerActivityWatcher final
    : public ::aidl::android::vendor::powerstats::BnTavioStateResidencyCallback,
      public hci::HciEventWatcher {
 public:
  explicit ControllerActivityWatcher(const sp<V1_1::IBluetoothHci>& hci);
  ~ControllerActivityWatcher() override;

  // Looks for the provider, on a thread of its own. Returns whether that thread was started.
  bool initialize() EXCLUDES(thread_lock_) EXCLUDES(lock_);

  // Bluetooth is on or off: registers with the provider, if there is one, or takes that back.
  // Return whether it was done within two seconds, or there was nothing to do.
  bool startWatcher() EXCLUDES(lock_);
  bool stopWatcher() EXCLUDES(lock_);

  // The provider's question: the totals so far.
  ::ndk::ScopedAStatus getStateResidency(std::vector<StateResidency>* states) override
      EXCLUDES(lock_);
  // The controller's answer.
  bool OnEventReceive(const hidl_vec<uint8_t>& event) override EXCLUDES(lock_);

  // The provider's process has gone: looks for the next one.
  void binderDied() EXCLUDES(thread_lock_) EXCLUDES(lock_);
  static void binderDiedCallback(void* cookie);

  // Add what one answer of the controller tells; last entries are times since boot.
  void updateIdleStat(const StateResidency& added) { Add(__func__, 0, added); }
  void updateActiveStat(const StateResidency& added) { Add(__func__, 1, added); }
  void updateTxStat(const StateResidency& added) { Add(__func__, 2, added); }
  void updateRxStat(const StateResidency& added) { Add(__func__, 3, added); }

  // Added to the controller's times to make them times since boot; 0 while Bluetooth is off.
  int64_t boot_time_offset_ms() const EXCLUDES(lock_);

 private:
  using Provider = ::aidl::android::vendor::powerstats::ITavioStateResidencyProvider;
  using States = std::array<StateResidency, 4>;

  // A call to the provider: registers, or takes that back.
  struct Registration {
    const std::shared_ptr<Provider> provider;
    const bool is_on;
    const std::chrono::steady_clock::time_point deadline;
    std::promise<bool> done;
    std::atomic<bool> given_up{false};  // no thread waits for it any more
  };

  static States NoStates();
  void Add(const char* operation, size_t id, const StateResidency& residency) EXCLUDES(lock_);
  // Bluetooth has gone on or off.
  bool Follow(bool is_on) EXCLUDES(lock_);
  void JoinThread() EXCLUDES(thread_lock_);
  void FindProvider() EXCLUDES(lock_);
  std::shared_ptr<Provider> provider() const EXCLUDES(lock_);
  // Hands a call to the thread that calls the provider, in place of one that it has not begun. Null
  // when there is no provider.
  std::shared_ptr<Registration> Ask(bool is_on) REQUIRES(lock_);
  // Waits for Ask()'s outcome, until its deadline; false for null.
  static bool Wait(const std::shared_ptr<Registration>& registration);
  void CallProvider() EXCLUDES(lock_);
  // Whether the provider need not be called: the calls between the last one and this one have been
  // replaced before they began.
  bool IsInForce(const Registration& registration) const REQUIRES(lock_);

  const sp<V1_1::IBluetoothHci> hci_;
  std::atomic<bool> enabled_{true};
  std::atomic<bool> bluetooth_on_{false};
  std::atomic<bool> query_pending_{false};

  std::mutex thread_lock_;                       // a leaf
  std::thread thread_ GUARDED_BY(thread_lock_);  // looks for the provider

  mutable std::mutex lock_;
  std::condition_variable disabled_;
  std::shared_ptr<Provider> provider_ GUARDED_BY(lock_);
  States base_ GUARDED_BY(lock_) = NoStates();  // of earlier times that Bluetooth was on
  States live_ GUARDED_BY(lock_) = NoStates();  // of this one
  int64_t boot_time_offset_ms_ GUARDED_BY(lock_) = 0;
  std::shared_ptr<Registration> next_ GUARDED_BY(lock_);  // asked for and not begun
  std::shared_ptr<Registration> last_ GUARDED_BY(lock_);  // the last one that was begun
  bool last_is_done_ GUARDED_BY(lock_) = false;           // the provider has confirmed it
  bool is_calling_ GUARDED_BY(lock_) = false;             // the thread runs
  std::chrono::steady_clock::time_point call_began_ GUARDED_BY(lock_);

  // Last: it unlinks itself before anything else goes.
  const ::ndk::ScopedAIBinder_DeathRecipient death_recipient_;
};

// Asks the controller for its counters as the stack would.
void send_hci_activities_vsc(const sp<V1_1::IBluetoothHci>& hci, std::atomic<bool>* pending);

// Adds a successful answer's counters up in watcher. Returns whether it was asked for, and clears
// pending then; an answer of another form is not taken.
bool filter_hci_activities_vse(const hidl_vec<uint8_t>& event, ControllerActivityWatcher* watcher,
                               std::atomic<bool>* pending);

}  // namespace android::hardware::bluetooth::activitywatcher
