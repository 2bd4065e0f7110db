#pragma once

#include <android-base/thread_annotations.h>

#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace android::hardware::bluetooth::async {

// Waits on one thread, at real-time priority where the system allows it, until descriptors are
// readable, and calls each one's function on that thread. May be started and stopped many times,
// from any thread, its own included. Descriptors are not owned: stop watching one before it is
// closed.
class AsyncFdWatcher {
 public:
  using ReadCallback = std::function<void(int fd)>;

  AsyncFdWatcher() = default;
  // Does not stop the thread: the owner stops it before.
  ~AsyncFdWatcher() = default;
  AsyncFdWatcher(const AsyncFdWatcher&) = delete;
  AsyncFdWatcher& operator=(const AsyncFdWatcher&) = delete;

  // Adds or replaces a descriptor's function; starts the thread if there is none. Returns 0, or -1
  // when the descriptor is out of select's range or pipe or thread cannot be made.
  int WatchFdForNonBlockingReads(int fd, const ReadCallback& callback) EXCLUDES(lock_);

  // Forgets one descriptor. Its function is not called any more once this returns; on the watcher's
  // own thread, once the running call ends.
  void StopWatchingFileDescriptor(int fd) EXCLUDES(lock_);

  // Forgets every descriptor without waiting for the running call.
  void Unwatch() EXCLUDES(lock_);

  // Ends the thread and forgets every descriptor. On the watcher's own thread it only marks the
  // run as ended: the thread ends after the running call.
  void StopWatchingFileDescriptors() EXCLUDES(lock_);

 private:
  struct Run;

  int tryStartThread() REQUIRES(lock_);

  std::mutex lock_;
  std::shared_ptr<Run> run_ GUARDED_BY(lock_);  // null: stopped
  std::thread thread_ GUARDED_BY(lock_);
};

}  // namespace android::hardware::bluetooth::async
