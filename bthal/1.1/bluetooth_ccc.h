#pragma once

#include <android-base/thread_annotations.h>
#include <hardware/nuvexa/bluetooth/ccc/1.1/IBluetoothCcc.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bluetooth_ccc_callback_map.h"
#include "extension/extension.h"
#include "hci/scoped_event_watcher.h"

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
class BluetoothCcc final : public IBluetoothCcc, public Extension<BluetoothCcc> {
 public:
  BluetoothCcc();

  // The result comes through the callback: times 0, or all bits set when the controller refused.
  Return<void> registerForLmpEvents(const sp<V1_0::IBluetoothCccCallback>& callback,
                                    const Address& address,
                                    const hidl_vec<LmpEventId>& lmpEventIds) override;
  Return<void> registerForLmpEvents_1_1(const sp<V1_1::IBluetoothCccCallback>& callback,
                                        const Address& address,
                                        const hidl_vec<LmpEventId>& lmpEventIds) override;
  Return<void> unregisterLmpEvents(const Address& address) override;

  // The result of a command.
  bool OnEventReceive(const hidl_vec<uint8_t>& event) override;

  void Start(hci::HciFlowControl* flow) override EXCLUDES(calls_);
  void Stop() override EXCLUDES(calls_);

 private:
  void Register(const char* operation, const CccCallbackWrapper& callback, const Address& address,
                const hidl_vec<LmpEventId>& events) EXCLUDES(calls_);
  void Unregister(const Address& address) REQUIRES(calls_);
  void UnregisterAll(const CccCallbackWrapper& callback) REQUIRES(calls_);
  bool handleCccSpecificEvent(const hidl_vec<uint8_t>& event);
  // The kernel's reading for the controller's toggle number count; 0 when it was taken before.
  uint64_t ReadingOf(uint8_t count);

  // Held for a client's call, its death, or Bluetooth going on or off, with the commands that it
  // sends; above the flow-control lock.
  std::mutex calls_ ACQUIRED_BEFORE(lock_);
  BluetoothCccCallbackMap callbacks_;
  // Takes the controller's reports; exists while any address is registered.
  std::optional<hci::ScopedEventWatcher> timesync_watcher_ GUARDED_BY(calls_);
  std::atomic<int32_t> toggle_count_{0};  // readings taken since Bluetooth was turned off

  std::mutex lock_;  // a leaf
  // Registrations whose result has not come yet; any result is the oldest one's.
  std::deque<std::pair<Address, CccCallbackWrapper>> unanswered_ GUARDED_BY(lock_);
};

}  // namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation
