#include <android-base/thread_annotations.h>
#include <pthread.h>
#include <qvr/qvr_client.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace qvr {
namespace {

class ThreadWorker : public Worker {
 public:
  explicit ThreadWorker(const std::string& name) {
    thread_ = std::thread([state = state_] { state->Run(); });
    pthread_setname_np(thread_.native_handle(), name.c_str());
  }
  ~ThreadWorker() override {
    state_->Stop();
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }

  void Post(std::function<void()> task) override { state_->Post(std::move(task)); }

 private:
  // Outlives the worker that is destroyed on its own thread.
  class State {
   public:
    void Post(std::function<void()> task) {
      bool wake = false;
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        tasks_.push_back(std::move(task));
        wake = std::exchange(waits_, false);
      }
      if (wake) changed_.notify_one();
    }
    void Stop() {
      std::deque<std::function<void()>> dropped;
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
        dropped.swap(tasks_);
      }
      changed_.notify_one();
    }
    void Run() {
      while (const std::function<void()> task = Take()) task();
    }

   private:
    // The next task; empty once stopped.
    std::function<void()> Take() {
      std::unique_lock<std::mutex> lock(mutex_);
      const android::base::ScopedLockAssertion locked(mutex_);
      while (!stopped_ && tasks_.empty()) {
        waits_ = true;
        changed_.wait(lock);
      }
      if (stopped_) return nullptr;
      std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      return task;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_ GUARDED_BY(mutex_);
    bool waits_ GUARDED_BY(mutex_) = false;  // the thread does, and nobody has woken it
    bool stopped_ GUARDED_BY(mutex_) = false;
  };

  const std::shared_ptr<State> state_ = std::make_shared<State>();
  std::thread thread_;
};

}  // namespace

int CreateWorker(const std::string& name, std::unique_ptr<Worker>* worker) {
  try {
    *worker = std::make_unique<ThreadWorker>(name);
  } catch (const std::system_error&) {
    return kAllocation;
  }
  return 0;
}

}  // namespace qvr
