#include "rpc/thread_pool.h"

#include <pthread.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "rpc/locked_wait.h"

namespace bthal::rpc {

void ThreadPool::Configure(size_t max, bool caller_will_join) {
  const std::lock_guard<std::mutex> lock(mutex_);
  max_threads_ = std::max<size_t>(1, max);
  awaits_join_ = caller_will_join;
}

void ThreadPool::Start() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (started_) return;
  started_ = true;
  StartThreadIfNeeded();
}

void ThreadPool::Join() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    started_ = true;
    awaits_join_ = false;
    ++threads_;
  }
  Work();
}

void ThreadPool::Post(std::unique_ptr<Task> task) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    tasks_.push_back(std::move(task));
    StartThreadIfNeeded();
  }
  posted_.notify_one();
}

void ThreadPool::StartThreadIfNeeded() {
  const size_t limit = max_threads_ - (awaits_join_ ? 1 : 0);
  if (!started_ || tasks_.size() <= idle_ || threads_ >= limit) return;
  const std::string name = name_ + "-" + std::to_string(++threads_);
  std::thread thread(&ThreadPool::Work, this);
  pthread_setname_np(thread.native_handle(), name.c_str());
  thread.detach();
}

void ThreadPool::Work() {
  for (;;) {
    std::unique_ptr<Task> task;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ++idle_;
      while (tasks_.empty()) LockedWait(posted_, mutex_);
      --idle_;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task->Run();
  }
}

ThreadPool& HidlThreadPool() {
  static auto* const pool = new ThreadPool("hidl-rpc");
  return *pool;
}

ThreadPool& NdkThreadPool() {
  static auto* const pool = new ThreadPool("ndk-rpc");
  return *pool;
}

}  // namespace bthal::rpc
