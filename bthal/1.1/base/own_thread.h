#pragma once

#include <log/log.h>

#include <memory>
#include <system_error>
#include <thread>
#include <utility>

namespace android::hardware::bluetooth {

// Runs task on a thread of its own, which nobody joins. When the system refuses a thread, it runs
// on this one before the call returns: task must not need a lock that the caller holds.
template <typename Task>
void RunOnOwnThread(const char* what, Task task) {
  // Shared: a thread that cannot start destroys its own copy.
  const auto shared = std::make_shared<Task>(std::move(task));
  try {
    std::thread([shared] { (*shared)(); }).detach();
  } catch (const std::system_error& error) {
    ALOGE("%s: no thread of its own: %s", what, error.what());
    (*shared)();
  }
}

}  // namespace android::hardware::bluetooth
