#define LOG_TAG "bthal.async_fd_watcher"

#include "transport/async_fd_watcher.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <log/log.h>
#include <pthread.h>
#include <sched.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <system_error>
#include <vector>

#include "base/thread_role.h"

namespace android::hardware::bluetooth::async {

// The state of one run of the thread, from start to stop. When the run is stopped on its own
// thread, the state lives on until the pass ends.
struct AsyncFdWatcher::Run {
  std::mutex lock;
  std::condition_variable call_ended;
  std::map<int, std::shared_ptr<const ReadCallback>> watched GUARDED_BY(lock);
  bool running GUARDED_BY(lock) = true;
  int called_fd GUARDED_BY(lock) = -1;  // the descriptor whose function is running
  base::unique_fd wake_read, wake_write;
  // The limit of a wait in which nothing gets readable. Nothing in the service sets it: the thread
  // waits without limit.
  const int timeout_ms = 0;
  const std::function<void()> timeout_callback;

  void Wake() {
    const char byte = 0;
    TEMP_FAILURE_RETRY(write(wake_write.get(), &byte, 1));
  }

  void ThreadRoutine();
  // Fills in the descriptors to wait for, ascending. Returns false once the run is stopped.
  bool GetDescriptors(std::vector<int>* fds) EXCLUDES(lock);
  void DropClosedDescriptors() EXCLUDES(lock);
  void Call(int fd) EXCLUDES(lock);
};

bool AsyncFdWatcher::Run::GetDescriptors(std::vector<int>* fds) {
  fds->clear();
  std::lock_guard<std::mutex> guard(lock);
  if (!running) return false;
  fds->push_back(wake_read.get());
  for (const auto& [fd, callback] : watched) fds->push_back(fd);
  return true;
}

void AsyncFdWatcher::Run::DropClosedDescriptors() {
  std::lock_guard<std::mutex> guard(lock);
  for (auto i = watched.begin(); i != watched.end();) {
    if (fcntl(i->first, F_GETFD) == -1) {
      ALOGW("%s: descriptor %d was closed while watched, dropped", __func__, i->first);
      i = watched.erase(i);
    } else {
      ++i;
    }
  }
}

void AsyncFdWatcher::Run::Call(int fd) {
  std::shared_ptr<const ReadCallback> callback;
  {
    std::lock_guard<std::mutex> guard(lock);
    const auto entry = watched.find(fd);
    if (!running || entry == watched.end()) return;
    callback = entry->second;
    called_fd = fd;
  }
  (*callback)(fd);
  callback.reset();
  std::lock_guard<std::mutex> guard(lock);
  called_fd = -1;
  call_ended.notify_all();
}

void AsyncFdWatcher::Run::ThreadRoutine() {
  g_thread_role = ThreadRole::kReader;
  sched_param priority{};
  priority.sched_priority = 1;
  if (sched_setscheduler(gettid(), SCHED_FIFO, &priority) != 0) {
    ALOGE("%s unable to set SCHED_FIFO for pid %d, tid %d, error %s", __func__, getpid(), gettid(),
          strerror(errno));
  }
  std::vector<int> fds;  // kept over the passes for its memory
  while (GetDescriptors(&fds)) {
    fd_set readable;
    FD_ZERO(&readable);
    for (int fd : fds) FD_SET(fd, &readable);
    const int highest = *std::max_element(fds.begin(), fds.end());
    timeval limit = {timeout_ms / 1000, timeout_ms % 1000 * 1000};
    const int ready =
        select(highest + 1, &readable, nullptr, nullptr, timeout_ms > 0 ? &limit : nullptr);
    if (ready < 0) {
      if (errno == EBADF) DropClosedDescriptors();
      continue;
    }
    if (ready == 0) {
      if (timeout_callback) timeout_callback();
      continue;
    }
    if (FD_ISSET(wake_read.get(), &readable)) {
      char byte;
      TEMP_FAILURE_RETRY(read(wake_read.get(), &byte, 1));
      continue;
    }
    for (int fd : fds) {
      if (fd != wake_read.get() && FD_ISSET(fd, &readable)) Call(fd);
    }
  }
}

int AsyncFdWatcher::tryStartThread() {
  if (run_ != nullptr) return 0;
  auto run = std::make_shared<Run>();
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_NONBLOCK | O_CLOEXEC) != 0) {
    ALOGE("%s: cannot make a pipe: %s", __func__, strerror(errno));
    return -1;
  }
  run->wake_read.reset(pipe_fds[0]);
  run->wake_write.reset(pipe_fds[1]);
  if (run->wake_read.get() >= FD_SETSIZE) {
    ALOGE("%s: descriptor %d is out of select's range", __func__, run->wake_read.get());
    return -1;
  }
  try {
    thread_ = std::thread([run] { run->ThreadRoutine(); });
  } catch (const std::system_error& error) {
    ALOGE("%s: cannot start the thread: %s", __func__, error.what());
    return -1;
  }
  pthread_setname_np(thread_.native_handle(), "bthal_reader");
  run_ = run;
  return 0;
}

int AsyncFdWatcher::WatchFdForNonBlockingReads(int fd, const ReadCallback& callback) {
  if (fd < 0 || fd >= FD_SETSIZE) {
    ALOGE("%s: descriptor %d is out of select's range", __func__, fd);
    return -1;
  }
  std::lock_guard<std::mutex> guard(lock_);
  if (tryStartThread() != 0) return -1;
  {
    std::lock_guard<std::mutex> run_guard(run_->lock);
    run_->watched[fd] = std::make_shared<const ReadCallback>(callback);
  }
  run_->Wake();
  return 0;
}

void AsyncFdWatcher::StopWatchingFileDescriptor(int fd) {
  std::shared_ptr<Run> run;
  {
    std::lock_guard<std::mutex> guard(lock_);
    run = run_;
  }
  if (run == nullptr) return;
  std::unique_lock<std::mutex> run_guard(run->lock);
  const base::ScopedLockAssertion locked(run->lock);
  run->watched.erase(fd);
  run->Wake();
  if (g_thread_role == ThreadRole::kReader) return;
  while (run->called_fd == fd) run->call_ended.wait(run_guard);
}

void AsyncFdWatcher::Unwatch() {
  std::shared_ptr<Run> run;
  {
    std::lock_guard<std::mutex> guard(lock_);
    run = run_;
  }
  if (run == nullptr) return;
  std::lock_guard<std::mutex> run_guard(run->lock);
  run->watched.clear();
  run->Wake();
}

void AsyncFdWatcher::StopWatchingFileDescriptors() {
  std::shared_ptr<Run> run;
  std::thread thread;
  {
    std::lock_guard<std::mutex> guard(lock_);
    run.swap(run_);
    thread.swap(thread_);
  }
  if (run == nullptr) return;
  {
    std::lock_guard<std::mutex> run_guard(run->lock);
    run->running = false;
    run->watched.clear();
  }
  run->Wake();
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

}  // namespace android::hardware::bluetooth::async
