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
    std::deque<std::function<void()>> dropped;
    {
      const std::lock_guard<std::mutex> lock(state_->mutex);
      state_->stopped = true;
      dropped.swap(state_->tasks);
      state_->changed.notify_one();
    }
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }

  void Post(std::function<void()> task) override {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->tasks.push_back(std::move(task));
    state_->changed.notify_one();
  }

 private:
  // Outlives the worker that is destroyed on its own thread.
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::function<void()>> tasks GUARDED_BY(mutex);
    bool stopped GUARDED_BY(mutex) = false;

    // The next task; empty once stopped.
    std::function<void()> Take() {
      std::unique_lock<std::mutex> lock(mutex);
      const android::base::ScopedLockAssertion locked(mutex);
      while (!stopped && tasks.empty()) changed.wait(lock);
      if (stopped) return nullptr;
      std::function<void()> task = std::move(tasks.front());
      tasks.pop_front();
      return task;
    }
    void Run() {
      while (const std::function<void()> task = Take()) task();
    }
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
