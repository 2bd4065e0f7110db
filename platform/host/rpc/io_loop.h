// The sockets that no caller waits for, and the threads that watch them.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace bthal::rpc {

// Something with a descriptor. OnReady() runs on the I/O thread or on an idle thread of the pool,
// and must not block.
class IoHandler {
 public:
  virtual ~IoHandler() = default;
  // events as epoll_wait(2) reports them.
  virtual void OnReady(uint32_t events) = 0;
};

// An epoll set and its thread, which starts with the first descriptor, sleeps while nothing
// happens, and lives as long as the process. Idle threads of the pool wait in it, too. The
// thread that has waited for the shortest time is woken first, so that one thread reads and runs
// one call after the other. Safe on any thread.
class IoLoop {
 public:
  static IoLoop& Get();
  IoLoop(const IoLoop&) = delete;
  IoLoop& operator=(const IoLoop&) = delete;

  // Names a descriptor in the calls below.
  uint64_t NewKey() { return ++last_key_; }
  // Watches descriptor for events. The loop holds handler until Remove(). One thread is woken for
  // an event with EPOLLET or EPOLLONESHOT; without, others may be called for the same one.
  void Add(uint64_t key, int descriptor, uint32_t events, std::shared_ptr<IoHandler> handler);
  void Change(uint64_t key, int descriptor, uint32_t events);
  // handler may still be running when this returns.
  void Remove(uint64_t key, int descriptor);

  // Waits for one event and runs its handler on the calling thread.
  void Poll();

 private:
  IoLoop();

  const android::base::unique_fd epoll_;
  std::mutex mutex_;
  std::unordered_map<uint64_t, std::shared_ptr<IoHandler>> handlers_ GUARDED_BY(mutex_);
  std::atomic<uint64_t> last_key_{0};
};

}  // namespace bthal::rpc
