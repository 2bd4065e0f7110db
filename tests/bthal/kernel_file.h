// A file of the kernel's that the service writes to.
#pragma once

#include <string>

#include "bthal/child_case.h"
#include "support/pty.h"

namespace test {

// Keeps everything that has been written to the file at path below this process's root folder.
class KernelFile {
 public:
  explicit KernelFile(const std::string& path) : pty_(RootFolder() + path) {}
  const std::string& Text() {
    const Bytes more = pty_.TakeWritten();
    return text_.append(more.begin(), more.end());
  }
  bool WaitForText(const std::string& text) {
    return WaitFor([&] { return Text() == text; });
  }

 private:
  LinkedPty pty_;
  std::string text_;
};

// The files of the controller's low-power mode and of the wake lock.
struct LowPowerFiles {
  KernelFile line{"/proc/bluetooth/sleep/btwrite"};
  KernelFile driver{"/proc/bluetooth/sleep/lpm"};
  KernelFile lock{"/sys/power/wake_lock"};
  KernelFile unlock{"/sys/power/wake_unlock"};

  // Whether the wake lock has been taken, and as often released.
  bool WakeLockReleased() {
    const size_t taken = CountOf("bthal_wakelock", lock.Text());
    return taken > 0 && CountOf("bthal_wakelock", unlock.Text()) == taken;
  }
};

}  // namespace test
