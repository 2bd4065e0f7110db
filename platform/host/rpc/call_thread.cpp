#define LOG_TAG "bthal.rpc"

#include "rpc/call_thread.h"

#include <android-base/logging.h>
#include <android-base/thread_annotations.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "rpc/incoming_call.h"

namespace bthal::rpc {

// A chain names a blocked thread.
uint64_t CallThread::NewChain() {
  static const uint64_t seed = [] {
    uint64_t random = 0;
    if (getrandom(&random, sizeof random, 0) != sizeof random) PLOG(FATAL) << "getrandom";
    return random;
  }();
  static std::atomic<uint64_t> count{0};
  uint64_t x = seed + 0x9e3779b97f4a7c15 * ++count;  // splitmix64
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  x ^= x >> 31;
  return x == 0 ? 1 : x;
}

// The threads that are blocked, by chain. Never destroyed.
struct Chains {
  static Chains& Get() {
    static auto* const chains = new Chains;
    return *chains;
  }
  std::mutex mutex;
  std::unordered_map<uint64_t, CallThread*> threads GUARDED_BY(mutex);
};

const std::shared_ptr<CallThread>& CallThread::Current() {
  // Not an object with a destructor: destructors of other objects may still make calls.
  thread_local std::shared_ptr<CallThread>* current = nullptr;
  struct Release {
    ~Release() { delete std::exchange(current, nullptr); }
  };
  if (current == nullptr) {
    current = new std::shared_ptr<CallThread>(std::make_shared<CallThread>());
    thread_local Release at_exit;
  }
  return *current;
}

CallThread::CallThread() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wake_.get() < 0) PLOG(ERROR) << "a thread calls without a descriptor of its own";
}

CallThread::~CallThread() = default;

bool CallThread::DeliverNested(std::unique_ptr<IncomingCall>& call) {
  Chains& chains = Chains::Get();
  const std::lock_guard<std::mutex> lock(chains.mutex);
  const auto found = chains.threads.find(call->chain());
  if (found == chains.threads.end()) return false;
  CallThread& thread = *found->second;
  thread.nested_.push_back(std::move(call));
  thread.Wake();
  return true;
}

void CallThread::DropObsolete() {
  Chains& chains = Chains::Get();
  std::vector<std::vector<std::unique_ptr<IncomingCall>>> dropped;  // after the lock is free
  const std::lock_guard<std::mutex> lock(chains.mutex);
  for (const auto& [chain, thread] : chains.threads) {
    dropped.push_back(TakeObsolete(thread->nested_));
  }
}

std::unique_ptr<IncomingCall> CallThread::TakeNested() {
  const std::lock_guard<std::mutex> lock(Chains::Get().mutex);
  if (nested_.empty()) return nullptr;
  std::unique_ptr<IncomingCall> call = std::move(nested_.front());
  nested_.pop_front();
  return call;
}

void CallThread::Wake() const {
  if (id_ == std::this_thread::get_id()) return;
  const uint64_t one = 1;
  TEMP_FAILURE_RETRY(write(wake_.get(), &one, sizeof one));
}

void CallThread::ClearWake() const {
  uint64_t count;
  TEMP_FAILURE_RETRY(read(wake_.get(), &count, sizeof count));
}

void CallThread::SleepUntil(std::chrono::steady_clock::time_point deadline) const {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  int time_ms = std::max(0, static_cast<int>(left.count()));
  if (wake_.get() < 0) time_ms = std::min(time_ms, kLookPeriodMs);
  pollfd woken{wake_.get(), POLLIN, 0};
  if (poll(&woken, 1, time_ms) == 1) ClearWake();
}

CallThread::Blocked::Blocked() : starts_chain_(Current()->chain == 0) {
  CallThread& thread = *Current();
  if (starts_chain_) thread.chain = NewChain();
  Chains& chains = Chains::Get();
  const std::lock_guard<std::mutex> lock(chains.mutex);
  if (thread.blocked_++ == 0) chains.threads.emplace(thread.chain, &thread);
}

CallThread::Blocked::~Blocked() {
  CallThread& thread = *Current();
  std::deque<std::unique_ptr<IncomingCall>> late;
  {
    Chains& chains = Chains::Get();
    const std::lock_guard<std::mutex> lock(chains.mutex);
    if (--thread.blocked_ == 0) {
      chains.threads.erase(thread.chain);
      late.swap(thread.nested_);
    }
  }
  for (std::unique_ptr<IncomingCall>& call : late) IncomingCall::Post(std::move(call));
  if (starts_chain_) thread.chain = 0;
}

}  // namespace bthal::rpc
