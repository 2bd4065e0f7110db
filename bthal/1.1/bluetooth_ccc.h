#pragma once

#include <android-base/thread_annotations.h>
#include <hardware/nuvexa/bluetooth/ccc/1.1/IBluetoothCcc.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "bluetooth_ccc_callback_map.h"
#include "extension/extension_command.h"

namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation {

enum class Operation : uint8_t { kAdd = 1, kRemove = 2, kClear = 3 };  // the last is never sent

// The whole command. events: wire identifiers, of which the first 246 fit in.
std::vector<uint8_t> buildCommand(Operation operation, const Address& address,
                                  const std::vector<uint8_t>& events);
// Unknown events are left out, others keep their order.
std::vector<uint8_t> buildAddCommand(const Address& address, const std::vector<LmpEventId>& events);

// The kernel's next time-sync reading; 0 when none is left.
uint64_t getSystemTime();

std::string addressToString(const Address& address);

// The service that has the controller report link-layer events of chosen devices, and tells clients
// when they happened on the host's clock. Clients call one at a time; their callbacks are called on
// the reader thread under the flow-control lock, which never waits for them.
class BluetoothCcc final : public IBluetoothCcc,
                           public ::android::hardware::bluetooth::ExtensionCommand {
 public:
  BluetoothCcc();

  // The result comes through the callback: times 0, or all bits set when the controller refused.
  ::android::hardware::Return<void> registerForLmpEvents(
      const ::android::sp<V1_0::IBluetoothCccCallback>& callback, const Address& address,
      const ::android::hardware::hidl_vec<LmpEventId>& lmpEventIds) override;
  ::android::hardware::Return<void> registerForLmpEvents_1_1(
      const ::android::sp<V1_1::IBluetoothCccCallback>& callback, const Address& address,
      const ::android::hardware::hidl_vec<LmpEventId>& lmpEventIds) override;
  ::android::hardware::Return<void> unregisterLmpEvents(const Address& address) override;

  // The result of a command.
  bool OnEventReceive(const ::android::hardware::hidl_vec<uint8_t>& event) override;

  static void OnBluetoothEnabled(::android::hardware::bluetooth::hci::HciFlowControl* flow);
  static void OnBluetoothDisabled();

 private:
  // Takes the controller's reports; registered while any address is.
  class TimesyncEventWatcher final : public ::android::hardware::bluetooth::hci::HciEventWatcher {
   public:
    explicit TimesyncEventWatcher(BluetoothCcc& ccc);
    bool OnEventReceive(const ::android::hardware::hidl_vec<uint8_t>& event) override;

   private:
    BluetoothCcc& ccc_;
  };

  // The one that watches and keeps what is registered, whichever instance is called.
  static BluetoothCcc& Shared();

  void Register(const char* operation, const CccCallbackWrapper& callback, const Address& address,
                const ::android::hardware::hidl_vec<LmpEventId>& events) EXCLUDES(calls_);
  void Unregister(const Address& address) REQUIRES(calls_);
  void UnregisterAll(const CccCallbackWrapper& callback) REQUIRES(calls_);
  void Start(::android::hardware::bluetooth::hci::HciFlowControl* flow) EXCLUDES(calls_);
  void Stop() EXCLUDES(calls_);
  bool handleCccSpecificEvent(const ::android::hardware::hidl_vec<uint8_t>& event);
  // The kernel's reading for the controller's toggle number count; 0 when it was taken before.
  uint64_t ReadingOf(uint8_t count);

  // One call, death, on or off at a time, with the commands it sends; above the flow-control lock.
  std::mutex calls_ ACQUIRED_BEFORE(lock_);
  BluetoothCccCallbackMap callbacks_;
  TimesyncEventWatcher timesync_watcher_;
  std::atomic<int32_t> toggle_count_{0};  // readings taken since Bluetooth was turned off

  std::mutex lock_;  // a leaf
  // Registrations whose result has not come yet; any result is the oldest one's.
  std::deque<std::pair<Address, CccCallbackWrapper>> unanswered_ GUARDED_BY(lock_);
};

}  // namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation
