#define LOG_TAG "bthal.rpc"

#include "rpc/thread_pool.h"

#include <android-base/logging.h>
#include <pthread.h>

#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>

#include "rpc/io_loop.h"
#include "rpc/locked_wait.h"

namespace bthal::rpc {
namespace {

// While the calling thread leads the I/O loop for a pool: that pool, and the task that the thread
// has read there and will run itself.
thread_local const ThreadPool* leading_for = nullptr;
thread_local std::unique_ptr<Task> own_task;

class FunctionTask : public Task {
 public:
  explicit FunctionTask(std::function<void()> function) : function_(std::move(function)) {}
  void Run() override { function_(); }

 private:
  const std::function<void()> function_;
};

}  // namespace

ThreadPool::ThreadPool(std::string name, Idle idle) : name_(std::move(name)), idle_kind_(idle) {}

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
  const std::lock_guard<std::mutex> lock(mutex_);
  if (leading_for == this && own_task == nullptr && tasks_.empty()) {
    own_task = std::move(task);
    leads_ = false;
    --idle_;
    return;
  }
  tasks_.push_back(std::move(task));
  StartThreadIfNeeded();
  Wake();
}

void ThreadPool::Post(std::function<void()> task) {
  Post(std::make_unique<FunctionTask>(std::move(task)));
}

void ThreadPool::DropObsolete() {
  std::vector<std::unique_ptr<Task>> dropped;  // destroyed after the lock is free
  const std::lock_guard<std::mutex> lock(mutex_);
  dropped = TakeObsolete(tasks_);
}

bool ThreadPool::HasOwnTask() { return own_task != nullptr; }

void ThreadPool::LeadIsFree() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (idle_ > 0 && !leads_) changed_.notify_one();
}

void ThreadPool::StartThreadIfNeeded() {
  const size_t limit = max_threads_ - (awaits_join_ ? 1 : 0);
  if (!started_ || tasks_.size() <= idle_ || threads_ >= limit) return;
  const std::string name = name_ + "-" + std::to_string(threads_ + 1);
  try {
    std::thread thread(&ThreadPool::Work, this);
    pthread_setname_np(thread.native_handle(), name.c_str());
    thread.detach();
    ++threads_;
  } catch (const std::system_error& error) {
    // What is posted waits for another thread, or for the next task, which tries again.
    LOG(ERROR) << "cannot start " << name << ": " << error.what();
  }
}

void ThreadPool::Wake() {
  const size_t asleep = idle_ - (leads_ ? 1 : 0);
  if (asleep > 0) {
    changed_.notify_one();
  } else if (leads_ && leading_for != this) {
    IoLoop::Get().Interrupt();
  }
}

std::unique_ptr<Task> ThreadPool::TakeTask() {
  std::unique_ptr<Task> task = std::move(tasks_.front());
  tasks_.pop_front();
  --idle_;
  if (!tasks_.empty()) Wake();  // two wakings may have reached this thread alone
  return task;
}

bool ThreadPool::TryLead() {
  if (idle_kind_ != Idle::kLead || !IoLoop::Get().TryLead()) return false;
  leads_ = true;
  return true;
}

std::unique_ptr<Task> ThreadPool::NextTask() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++idle_;
    while (tasks_.empty() && !TryLead()) LockedWait(changed_, mutex_);
    if (!tasks_.empty()) return TakeTask();
  }
  return Lead();
}

std::unique_ptr<Task> ThreadPool::Lead() {
  for (;;) {
    leading_for = this;
    IoLoop::Get().Poll();
    leading_for = nullptr;
    const std::lock_guard<std::mutex> lock(mutex_);
    std::unique_ptr<Task> task = std::move(own_task);
    if (task == nullptr) {
      if (tasks_.empty()) continue;
      leads_ = false;
      task = TakeTask();
    }
    IoLoop::Get().Resign();
    return task;
  }
}

void ThreadPool::Work() {
  for (;;) NextTask()->Run();
}

ThreadPool& HidlThreadPool() {
  static auto* const pool = new ThreadPool("hidl-rpc", ThreadPool::Idle::kLead);
  return *pool;
}

ThreadPool& NdkThreadPool() {
  static auto* const pool = new ThreadPool("ndk-rpc", ThreadPool::Idle::kSleep);
  return *pool;
}

}  // namespace bthal::rpc
