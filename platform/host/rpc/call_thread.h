// What the runtime knows of a thread that makes or serves calls.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <thread>
#include <utility>

namespace bthal::rpc {

class IncomingCall;

// A chain is a call, the calls that its handler makes, the calls that theirs make, and so on, over
// all processes. While a thread is blocked in a chain, calls of that chain into this process run on
// it: it would otherwise take a second thread of the pool to answer the thread that is waiting.
class CallThread {
 public:
  // The calling thread's own.
  static const std::shared_ptr<CallThread>& Current();

  CallThread();
  ~CallThread();
  CallThread(const CallThread&) = delete;
  CallThread& operator=(const CallThread&) = delete;

  // Gives call to the thread that is blocked in its chain. False when there is none: the caller
  // keeps call.
  static bool DeliverNested(std::unique_ptr<IncomingCall>& call);
  // Destroys the calls that became obsolete before a blocked thread took them.
  static void DropObsolete();
  // The next call for this thread while it is blocked, or null.
  std::unique_ptr<IncomingCall> TakeNested();

  // Ends this thread's poll() on wake_descriptor(); from any thread. The descriptor is -1 when
  // there was none left for it: the thread then looks by itself every kLookPeriodMs.
  static constexpr int kLookPeriodMs = 10;
  void Wake() const;
  void ClearWake() const;
  // For this thread only: until Wake() or the deadline, and sometimes less.
  void SleepUntil(std::chrono::steady_clock::time_point deadline) const;
  int wake_descriptor() const { return wake_.get(); }

  // For this thread only: the chain that it works for; 0 for none.
  uint64_t chain = 0;

  // A number that no other process can guess.
  static uint64_t NewChain();

  // This thread is blocked in a call for the lifetime of this object.
  class Blocked {
   public:
    Blocked();
    ~Blocked();
    Blocked(const Blocked&) = delete;
    Blocked& operator=(const Blocked&) = delete;

   private:
    const bool starts_chain_;
  };

  // This thread serves a call of a chain for the lifetime of this object.
  class Serving {
   public:
    explicit Serving(uint64_t chain) : outer_chain_(std::exchange(Current()->chain, chain)) {}
    ~Serving() { Current()->chain = outer_chain_; }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;

   private:
    const uint64_t outer_chain_;
  };

 private:
  const std::thread::id id_ = std::this_thread::get_id();
  const android::base::unique_fd wake_;
  // Guarded by the table of chains.
  int blocked_ = 0;  // calls that this thread is blocked in, one inside the other
  std::deque<std::unique_ptr<IncomingCall>> nested_;
};

}  // namespace bthal::rpc
