#pragma once

#include <android-base/thread_annotations.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace android::hardware::details {

// One thread that runs tasks in order: the oneway calls of a passthrough wrapper. The thread
// starts with the first task; the destructor runs what is queued and joins it.
class TaskRunner {
 public:
  TaskRunner() = default;
  ~TaskRunner();
  TaskRunner(const TaskRunner&) = delete;
  TaskRunner& operator=(const TaskRunner&) = delete;

  // Called once, before the first push().
  void start(size_t limit);
  // False when limit tasks wait already.
  bool push(const std::function<void()>& task);

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> tasks_ GUARDED_BY(mutex_);
  size_t limit_ GUARDED_BY(mutex_) = 0;
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::thread thread_ GUARDED_BY(mutex_);
};

}  // namespace android::hardware::details
