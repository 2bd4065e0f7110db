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

// Something with a descriptor. OnReady() runs on the thread that leads the I/O loop, and must not
// block.
class IoHandler {
 public:
  virtual ~IoHandler() = default;
  // events as epoll_wait(2) reports them.
  virtual void OnReady(uint32_t events) = 0;
};

// An epoll set. One thread at a time waits in it and runs the handlers: the leader. An idle thread
// of the pool leads if it can, so that the thread that reads a call runs it, and nobody has to be
// woken for it. When it resigns to run a call, the loop's own thread "bthal-io" stands by: it is
// woken only if something happens before a thread leads again, and leads for that one event. Safe
// on any thread; lives as long as the process.
class IoLoop {
 public:
  static IoLoop& Get();
  IoLoop(const IoLoop&) = delete;
  IoLoop& operator=(const IoLoop&) = delete;

  // Names a descriptor in the calls below.
  uint64_t NewKey() { return ++last_key_; }
  // Watches descriptor for events. The loop holds handler until Remove(). False when the system
  // has no room for one more.
  bool Add(uint64_t key, int descriptor, uint32_t events, std::shared_ptr<IoHandler> handler);
  void Change(uint64_t key, int descriptor, uint32_t events);
  // handler may still be running when this returns.
  void Remove(uint64_t key, int descriptor);

  // Makes the calling thread the leader, unless there is one.
  bool TryLead();
  // For the leader: waits for one event and runs its handler. Returns without one after
  // Interrupt().
  void Poll() { Poll(-1); }
  void Interrupt();
  void Resign();

 private:
  IoLoop();
  void Poll(int time_ms);
  [[noreturn]] void StandBy();
  void Arm(uint32_t events) REQUIRES(lead_mutex_);

  const android::base::unique_fd epoll_;
  const android::base::unique_fd interrupt_;  // an event descriptor
  // Another epoll set, which holds epoll_ and reports it only while nobody leads.
  const android::base::unique_fd standby_;
  std::mutex lead_mutex_;
  bool led_ GUARDED_BY(lead_mutex_) = false;
  std::mutex mutex_;
  std::unordered_map<uint64_t, std::shared_ptr<IoHandler>> handlers_ GUARDED_BY(mutex_);
  std::atomic<uint64_t> last_key_{0};
};

}  // namespace bthal::rpc
