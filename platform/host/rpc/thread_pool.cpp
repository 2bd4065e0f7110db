#include "rpc/thread_pool.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "rpc/io_loop.h"
#include "rpc/locked_wait.h"

namespace bthal::rpc {
namespace {

// While the calling thread polls as an idle thread of a pool: that pool, and the task that the
// thread has read there and will run itself.
thread_local const ThreadPool* polling_for = nullptr;
thread_local std::unique_ptr<Task> own_task;

class FunctionTask : public Task {
 public:
  explicit FunctionTask(std::function<void()> function) : function_(std::move(function)) {}
  void Run() override { function_(); }

 private:
  const std::function<void()> function_;
};

}  // namespace

// Ends the wait of a thread in the I/O loop.
class ThreadPool::WakeHandler : public IoHandler {
 public:
  explicit WakeHandler(ThreadPool* pool) : pool_(pool) {}
  void OnReady(uint32_t /*events*/) override {
    if (polling_for != pool_) pool_->StepAside();
  }

 private:
  ThreadPool* const pool_;
};

ThreadPool::ThreadPool(std::string name, Idle idle)
    : name_(std::move(name)),
      wake_(idle == Idle::kPoll ? eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1) {
  if (wake_.get() < 0) return;
  IoLoop& loop = IoLoop::Get();
  loop.Add(loop.NewKey(), wake_.get(), EPOLLIN | EPOLLET, std::make_shared<WakeHandler>(this));
}

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
  bool wake = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (polling_for == this && own_task == nullptr && tasks_.empty()) {
      own_task = std::move(task);
      return;
    }
    tasks_.push_back(std::move(task));
    StartThreadIfNeeded();
    wake = idle_ > 0;
  }
  if (wake) Wake();
}

void ThreadPool::Post(std::function<void()> task) {
  Post(std::make_unique<FunctionTask>(std::move(task)));
}

void ThreadPool::DropObsolete() {
  std::vector<std::unique_ptr<Task>> dropped;  // destroyed after the lock is free
  const std::lock_guard<std::mutex> lock(mutex_);
  dropped = TakeObsolete(tasks_);
  if (aside_ > 0) changed_.notify_all();
}

void ThreadPool::StartThreadIfNeeded() {
  const size_t limit = max_threads_ - (awaits_join_ ? 1 : 0);
  if (!started_ || tasks_.size() <= idle_ || threads_ >= limit) return;
  const std::string name = name_ + "-" + std::to_string(++threads_);
  std::thread thread(&ThreadPool::Work, this);
  pthread_setname_np(thread.native_handle(), name.c_str());
  thread.detach();
}

void ThreadPool::Wake() {
  if (wake_.get() < 0) {
    changed_.notify_one();
    return;
  }
  const uint64_t one = 1;
  TEMP_FAILURE_RETRY(write(wake_.get(), &one, sizeof one));
}

void ThreadPool::StepAside() {
  Wake();
  const std::lock_guard<std::mutex> lock(mutex_);
  ++aside_;
  while (!tasks_.empty() && idle_ > 0) LockedWait(changed_, mutex_);
  --aside_;
}

std::unique_ptr<Task> ThreadPool::TakeOrBeginIdle() {
  std::unique_ptr<Task> task;
  bool wake = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (tasks_.empty()) {
      ++idle_;
      return nullptr;
    }
    task = std::move(tasks_.front());
    tasks_.pop_front();
    wake = !tasks_.empty() && idle_ > 0;  // several wakings may have become one
  }
  if (wake) Wake();
  return task;
}

void ThreadPool::EndIdle() {
  const std::lock_guard<std::mutex> lock(mutex_);
  --idle_;
  if (aside_ > 0) changed_.notify_all();
}

std::unique_ptr<Task> ThreadPool::WaitIdle() {
  if (wake_.get() < 0) {
    const std::lock_guard<std::mutex> lock(mutex_);
    while (tasks_.empty()) LockedWait(changed_, mutex_);
    return nullptr;
  }
  polling_for = this;
  IoLoop::Get().Poll();
  polling_for = nullptr;
  return std::move(own_task);
}

void ThreadPool::Work() {
  for (;;) {
    std::unique_ptr<Task> task = TakeOrBeginIdle();
    if (task == nullptr) {
      task = WaitIdle();
      EndIdle();
    }
    if (task != nullptr) task->Run();
  }
}

ThreadPool& HidlThreadPool() {
  static auto* const pool = new ThreadPool("hidl-rpc", ThreadPool::Idle::kPoll);
  return *pool;
}

ThreadPool& NdkThreadPool() {
  static auto* const pool = new ThreadPool("ndk-rpc", ThreadPool::Idle::kSleep);
  return *pool;
}

}  // namespace bthal::rpc
