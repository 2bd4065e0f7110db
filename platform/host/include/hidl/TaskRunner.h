#pragma once

#include <cstddef>
#include <functional>

namespace android::hardware::details {

// For the oneway calls of passthrough wrappers, of which there are none: it takes no task.
class TaskRunner {
 public:
  void start(size_t /*limit*/) {}
  bool push(const std::function<void()>& /*task*/) { return false; }
};

}  // namespace android::hardware::details
