#pragma once

#include <android-base/thread_annotations.h>
#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "coex_device.h"
#include "controller_activity_watcher.h"
#include "hci/packet.h"
#include "stack/lifecycle.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {

class BluetoothHci;

// Death recipient: told by the runtime when the process of a stack dies. Owned by the HAL object.
class BluetoothDeathRecipient : public hidl_death_recipient {
 public:
  explicit BluetoothDeathRecipient(const sp<BluetoothHci>& hal) : hal_(hal) {}

  // Only logs when the dead object is not the attached stack.
  void serviceDied(uint64_t cookie, const wp<::android::hidl::base::V1_0::IBase>& who) override;

  bool has_died() const { return has_died_; }
  void ClearHasDied() { has_died_ = false; }

 private:
  const sp<BluetoothHci> hal_;
  std::atomic<bool> has_died_{false};
};

// The HAL object: attaches one Bluetooth stack at a time, brings the controller up for it, relays
// its packets in both directions, and recovers when the stack dies or the chip is reset. One per
// process, alive for as long as the process. Calls arrive on the HIDL thread; packets from the
// controller on the reader thread; deaths on a thread of the runtime.
class BluetoothHci : public IBluetoothHci {
 public:
  // Starts the bring-up when accelerated Bluetooth-on is supported.
  BluetoothHci();

  // IBluetoothHci
  Return<void> initialize(const sp<V1_0::IBluetoothHciCallbacks>& cb) override;
  Return<void> initialize_1_1(const sp<V1_1::IBluetoothHciCallbacks>& cb) override;
  Return<void> sendHciCommand(const hidl_vec<uint8_t>& packet) override;
  Return<void> sendAclData(const hidl_vec<uint8_t>& packet) override;
  Return<void> sendScoData(const hidl_vec<uint8_t>& packet) override;
  Return<void> sendIsoData(const hidl_vec<uint8_t>& packet) override;
  Return<void> close() override;
  // Writes the debug report; with {"state"} as options the lines of hci::TransportState and of
  // debug::BringUpSteps instead.
  // With {"capture", FORMAT, …} starts a capture (tap/capture.h) to the descriptor and returns.
  Return<void> debug(const hidl_handle& fd, const hidl_vec<hidl_string>& options) override;

  // Handles the death of a stack: detaches it and closes the controller, or brings it up again. On
  // the runtime's thread for deaths.
  void OnStackDied(const sp<::android::hidl::base::V1_0::IBase>& who);

 private:
  void initialize_impl(const sp<V1_0::IBluetoothHciCallbacks>& cb,
                       const sp<V1_1::IBluetoothHciCallbacks>& cb_1_1);
  // Brings the controller up for a stack that has been attached.
  void attach(const sp<V1_0::IBluetoothHciCallbacks>& cb, Lifecycle::Turn turn);
  void link_to_death(const sp<V1_0::IBluetoothHciCallbacks>& cb) EXCLUDES(link_lock_);
  void unlink_from_death() EXCLUDES(link_lock_);

  void perform_init(Lifecycle::Turn& turn);
  void perform_close(Lifecycle::Turn& turn);
  void close_hci();
  void thread_perform_init(Lifecycle::Turn turn);
  void thread_perform_reinit(Lifecycle::Turn turn);
  // Tears down, or resets the controller that stays up, and detaches stack, unless another one has
  // come in its place.
  void close_impl(const sp<::android::hidl::base::V1_0::IBase>& stack, Lifecycle::Turn turn);
  bool open_coex_dev();
  void resetBtCallback();
  void startTavioHalExtensions(uint64_t attachment) EXCLUDES(extensions_lock_);
  void stopTavioHalExtensions() EXCLUDES(extensions_lock_);
  uint64_t CurrentAttachment() EXCLUDES(extensions_lock_);

  void setup_signal_handler();
  // False when the system refuses one.
  bool StartSignalThread();
  static void signal_handler(int signum);
  // Acts on the signal, on a thread of its own.
  void HandleTermination(int signum);

  void SendPacket(hci::HciPacketType type, const hidl_vec<uint8_t>& packet);
  // The four functions that the transport calls for the controller's packets, on the reader thread.
  static void OnEvent(const hidl_vec<uint8_t>& event);
  static void OnAclData(const hidl_vec<uint8_t>& data);
  static void OnScoData(const hidl_vec<uint8_t>& data);
  static void OnIsoData(const hidl_vec<uint8_t>& data);
  // Takes the events that the diagnostics make themselves.
  static void notify_cb(const hidl_vec<uint8_t>& event);

  Lifecycle lifecycle_;
  coex_device::CoexDevice coex_device_;
  sp<BluetoothDeathRecipient> death_recipient_;
  std::mutex link_lock_;  // a leaf
  std::function<void(sp<BluetoothDeathRecipient>&)> unlink_cb_ GUARDED_BY(link_lock_);

  // Holds this object in turn: both live for as long as the process.
  std::shared_ptr<activitywatcher::ControllerActivityWatcher> activity_watcher_;
  std::mutex extensions_lock_;
  // Counts ends of attachments: a start that comes after its attachment's end sees another value.
  uint64_t attachment_ GUARDED_BY(extensions_lock_) = 0;
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
