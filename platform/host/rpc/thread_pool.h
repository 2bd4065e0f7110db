// The threads that serve calls from other processes.
#pragma once

#include <android-base/thread_annotations.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace bthal::rpc {

class Task {
 public:
  virtual ~Task() = default;
  virtual void Run() = 0;
};

// Runs tasks in the order of their posting, on threads that it starts when there is work for them.
// Lives as long as the process, and so do its threads: none is ever joined. Safe on any thread.
class ThreadPool {
 public:
  explicit ThreadPool(std::string name) : name_(std::move(name)) {}
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // At most max threads (never fewer than one); one of them is kept free for Join().
  void Configure(size_t max, bool caller_will_join);
  // Until this or Join(), tasks wait.
  void Start();
  // Runs tasks on the calling thread; does not return.
  [[noreturn]] void Join();
  void Post(std::unique_ptr<Task> task);

 private:
  void StartThreadIfNeeded() REQUIRES(mutex_);
  [[noreturn]] void Work();

  const std::string name_;
  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<std::unique_ptr<Task>> tasks_ GUARDED_BY(mutex_);
  size_t max_threads_ GUARDED_BY(mutex_) = 1;
  size_t threads_ GUARDED_BY(mutex_) = 0;
  size_t idle_ GUARDED_BY(mutex_) = 0;
  bool started_ GUARDED_BY(mutex_) = false;
  bool awaits_join_ GUARDED_BY(mutex_) = false;
};

// HIDL objects and NDK binder objects have a pool each.
ThreadPool& HidlThreadPool();
ThreadPool& NdkThreadPool();

}  // namespace bthal::rpc
