#define LOG_TAG "bthal.rpc"

#include "rpc/call_thread.h"

#include <android-base/logging.h>
#include <android-base/thread_annotations.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "rpc/incoming_call.h"

namespace bthal::rpc {
namespace {

// Numbers that no other process can guess: a chain names a blocked thread.
uint64_t NewChain() {
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

}  // namespace

// The threads that are blocked, by chain. Never destroyed.
struct Chains {
  static Chains& Get() {
    static auto* const chains = new Chains;
    return *chains;
  }
  static void Enter(CallThread& thread) {
    Chains& chains = Get();
    const std::lock_guard<std::mutex> lock(chains.mutex);
    if (thread.blocked_++ == 0) chains.threads.emplace(thread.chain, &thread);
  }
  static std::deque<std::unique_ptr<IncomingCall>> Leave(CallThread& thread) {
    Chains& chains = Get();
    const std::lock_guard<std::mutex> lock(chains.mutex);
    if (--thread.blocked_ != 0) return {};
    chains.threads.erase(thread.chain);
    return std::exchange(thread.nested_, {});
  }
  static bool Deliver(std::unique_ptr<IncomingCall>& call) {
    Chains& chains = Get();
    const std::lock_guard<std::mutex> lock(chains.mutex);
    const auto found = chains.threads.find(call->chain());
    if (found == chains.threads.end()) return false;
    CallThread& thread = *found->second;
    thread.nested_.push_back(std::move(call));
    thread.Wake();
    return true;
  }
  static std::vector<std::unique_ptr<IncomingCall>> TakeAllObsolete() {
    Chains& chains = Get();
    std::vector<std::unique_ptr<IncomingCall>> taken;
    const std::lock_guard<std::mutex> lock(chains.mutex);
    for (const auto& [chain, thread] : chains.threads) {
      for (std::unique_ptr<IncomingCall>& call : TakeObsolete(thread->nested_)) {
        taken.push_back(std::move(call));
      }
    }
    return taken;
  }
  static std::unique_ptr<IncomingCall> Take(CallThread& thread) {
    Chains& chains = Get();
    const std::lock_guard<std::mutex> lock(chains.mutex);
    if (thread.nested_.empty()) return nullptr;
    std::unique_ptr<IncomingCall> call = std::move(thread.nested_.front());
    thread.nested_.pop_front();
    return call;
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
  return Chains::Deliver(call);
}

void CallThread::DropObsolete() { Chains::TakeAllObsolete(); }

std::unique_ptr<IncomingCall> CallThread::TakeNested() { return Chains::Take(*this); }

void CallThread::Wake() const {
  if (id_ == std::this_thread::get_id()) return;
  const uint64_t one = 1;
  TEMP_FAILURE_RETRY(write(wake_.get(), &one, sizeof one));
}

void CallThread::ClearWake() const {
  uint64_t count;
  TEMP_FAILURE_RETRY(read(wake_.get(), &count, sizeof count));
}

CallThread::Blocked::Blocked() : starts_chain_(Current()->chain == 0) {
  CallThread& thread = *Current();
  if (starts_chain_) thread.chain = NewChain();
  Chains::Enter(thread);
}

CallThread::Blocked::~Blocked() {
  CallThread& thread = *Current();
  // What came too late for this thread is the pool's.
  for (std::unique_ptr<IncomingCall>& call : Chains::Leave(thread)) {
    IncomingCall::Post(std::move(call));
  }
  if (starts_chain_) thread.chain = 0;
}

CallThread::Serving::Serving(uint64_t chain, Identity caller)
    : outer_chain_(Current()->chain), outer_caller_(Current()->caller) {
  Current()->chain = chain;
  Current()->caller = caller;
}

CallThread::Serving::~Serving() {
  Current()->chain = outer_chain_;
  Current()->caller = outer_caller_;
}

}  // namespace bthal::rpc
