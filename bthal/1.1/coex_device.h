#pragma once

#include <android-base/thread_annotations.h>

#include <functional>
#include <memory>
#include <mutex>

namespace android::hardware::bluetooth::coex_device {

// Listens to the WLAN driver, which announces on "/dev/wbrc" that it resets the chip that Bluetooth
// shares with it: runs the callback, acknowledges where asked, and reports the fault. Owned
// by the HAL object. The callback runs on the thread "BT_COEX_THREAD".
class CoexDevice {
 public:
  CoexDevice();
  ~CoexDevice();
  CoexDevice(const CoexDevice&) = delete;
  CoexDevice& operator=(const CoexDevice&) = delete;

  // Opens the device and starts the thread. While a thread runs, only takes the new callback and
  // delay. delay_ms: between the callback and the acknowledgement.
  bool DeviceOpen(const std::function<void()>& callback, int delay_ms) EXCLUDES(lock_);

  // Ends the thread and closes the device; on the thread itself, once that returns to its loop.
  // Returns the result of closing; 0 if there was nothing to close.
  int DeviceClose() EXCLUDES(lock_);

 private:
  struct Poller;

  static void PollEventThread(const std::shared_ptr<Poller>& poller);

  std::mutex lock_;
  std::shared_ptr<Poller> poller_ GUARDED_BY(lock_);  // null: closed
};

}  // namespace android::hardware::bluetooth::coex_device
