// The threads that serve calls from other processes.
#pragma once

#include <android-base/thread_annotations.h>

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
  // What idle threads do: sleep, or one of them leads the I/O loop, where it reads the calls that
  // it runs. One pool of a process leads at most.
  enum class Idle { kSleep, kLead };

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
  // Whether the calling thread leads the I/O loop and has read a call that it will run next.
  static bool HasOwnTask();
  // The I/O loop has no leader: wakes a sleeping idle thread to become it.
  void LeadIsFree();

 private:
  void StartThreadIfNeeded() REQUIRES(mutex_);
  [[noreturn]] void Work();
  // Waits for a task: asleep, or as the leader of the I/O loop.
  std::unique_ptr<Task> NextTask();
  bool TryLead() REQUIRES(mutex_);
  std::unique_ptr<Task> Lead();
  std::unique_ptr<Task> TakeTask() REQUIRES(mutex_);
  // Wakes a thread for the task just posted, if one is idle.
  void Wake() REQUIRES(mutex_);

  const std::string name_;
  const Idle idle_kind_;
  std::mutex mutex_;
  std::condition_variable changed_;  // something was posted, or nobody leads the I/O loop
  std::deque<std::unique_ptr<Task>> tasks_ GUARDED_BY(mutex_);
  size_t max_threads_ GUARDED_BY(mutex_) = 1;
  size_t threads_ GUARDED_BY(mutex_) = 0;
  size_t idle_ GUARDED_BY(mutex_) = 0;     // threads without a task
  bool leads_ GUARDED_BY(mutex_) = false;  // one of those leads the I/O loop
  bool started_ GUARDED_BY(mutex_) = false;
  bool awaits_join_ GUARDED_BY(mutex_) = false;
};

// HIDL objects and NDK binder objects have a pool each.
ThreadPool& HidlThreadPool();
ThreadPool& NdkThreadPool();

}  // namespace bthal::rpc
