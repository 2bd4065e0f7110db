// The threads that serve calls from other processes.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace bthal::rpc {

class Task {
 public:
  virtual ~Task() = default;
  virtual void Run() = 0;
  // Whether its result is no longer of use. Once true, it stays true.
  virtual bool IsObsolete() const { return false; }
};

// Takes the obsolete tasks out of a queue. The caller destroys them once it holds no lock.
template <typename T>
std::vector<std::unique_ptr<T>> TakeObsolete(std::deque<std::unique_ptr<T>>& queue) {
  const auto first =
      std::stable_partition(queue.begin(), queue.end(),
                            [](const std::unique_ptr<T>& task) { return !task->IsObsolete(); });
  std::vector<std::unique_ptr<T>> taken(std::make_move_iterator(first),
                                        std::make_move_iterator(queue.end()));
  queue.erase(first, queue.end());
  return taken;
}

// Runs tasks in the order of their posting, on threads that it starts when there is work for them.
// Lives as long as the process, and so do its threads: none is ever joined. Safe on any thread.
class ThreadPool {
 public:
  // What idle threads do: sleep, or wait in the I/O loop, where they read the calls that they run,
  // so that no thread has to hand them over. One pool of a process polls at most.
  enum class Idle { kSleep, kPoll };

  ThreadPool(std::string name, Idle idle);
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // At most max threads (never fewer than one); one of them is kept free for Join().
  void Configure(size_t max, bool caller_will_join);
  // Until this or Join(), tasks wait.
  void Start();
  // Runs tasks on the calling thread; does not return.
  [[noreturn]] void Join();
  void Post(std::unique_ptr<Task> task);
  void Post(std::function<void()> task);
  // Destroys the tasks that have become obsolete while they wait.
  void DropObsolete();

 private:
  class WakeHandler;

  void StartThreadIfNeeded() REQUIRES(mutex_);
  [[noreturn]] void Work();
  // The oldest task, if there is one; else the thread is idle until EndIdle().
  std::unique_ptr<Task> TakeOrBeginIdle();
  void EndIdle();
  // Waits for a task, and may return one that the calling thread has read itself.
  std::unique_ptr<Task> WaitIdle();
  void Wake();
  // For a thread of the I/O loop that was woken in place of one of the pool's.
  void StepAside();

  const std::string name_;
  const android::base::unique_fd wake_;  // in the I/O loop, for a pool that polls; else none
  std::mutex mutex_;
  std::condition_variable changed_;  // something was posted, or an idle thread has woken up
  std::deque<std::unique_ptr<Task>> tasks_ GUARDED_BY(mutex_);
  size_t max_threads_ GUARDED_BY(mutex_) = 1;
  size_t threads_ GUARDED_BY(mutex_) = 0;
  size_t idle_ GUARDED_BY(mutex_) = 0;
  size_t aside_ GUARDED_BY(mutex_) = 0;
  bool started_ GUARDED_BY(mutex_) = false;
  bool awaits_join_ GUARDED_BY(mutex_) = false;
};

// HIDL objects and NDK binder objects have a pool each.
ThreadPool& HidlThreadPool();
ThreadPool& NdkThreadPool();

}  // namespace bthal::rpc
