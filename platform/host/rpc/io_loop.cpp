#define LOG_TAG "bthal.rpc"

#include "rpc/io_loop.h"

#include <android-base/logging.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <thread>
#include <utility>

#include "rpc/thread_pool.h"

namespace bthal::rpc {
namespace {

constexpr uint64_t kInterrupt = 0;  // a key that NewKey() never gives
constexpr uint32_t kOnce = EPOLLIN | EPOLLONESHOT;

}  // namespace

IoLoop& IoLoop::Get() {
  static auto* const loop = new IoLoop;
  return *loop;
}

IoLoop::IoLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      interrupt_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      standby_(epoll_create1(EPOLL_CLOEXEC)) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLET;
  event.data.u64 = kInterrupt;
  epoll_event happens{};
  happens.events = kOnce;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, interrupt_.get(), &event) != 0 ||
      epoll_ctl(standby_.get(), EPOLL_CTL_ADD, epoll_.get(), &happens) != 0) {
    PLOG(FATAL) << "epoll";
  }
  std::thread thread([this] { StandBy(); });
  pthread_setname_np(thread.native_handle(), "bthal-io");
  thread.detach();
}

bool IoLoop::Add(uint64_t key, int descriptor, uint32_t events,
                 std::shared_ptr<IoHandler> handler) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    handlers_.emplace(key, std::move(handler));
  }
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0) return true;
  PLOG(ERROR) << "a descriptor cannot be waited for";
  Remove(key, descriptor);
  return false;
}

void IoLoop::Change(uint64_t key, int descriptor, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, descriptor, &event);  // fails after Remove(): as it should
}

void IoLoop::Remove(uint64_t key, int descriptor) {
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
  std::shared_ptr<IoHandler> handler;  // its destructor runs after the lock is free
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = handlers_.find(key);
  if (found == handlers_.end()) return;
  handler = std::move(found->second);
  handlers_.erase(found);
}

bool IoLoop::TryLead() {
  const std::lock_guard<std::mutex> lock(lead_mutex_);
  if (led_) return false;
  led_ = true;
  Arm(0);
  return true;
}

void IoLoop::Resign() {
  const std::lock_guard<std::mutex> lock(lead_mutex_);
  led_ = false;
  Arm(kOnce);
}

void IoLoop::Arm(uint32_t events) {
  epoll_event event{};
  event.events = events;
  epoll_ctl(standby_.get(), EPOLL_CTL_MOD, epoll_.get(), &event);
}

void IoLoop::Interrupt() {
  const uint64_t one = 1;
  TEMP_FAILURE_RETRY(write(interrupt_.get(), &one, sizeof one));
}

void IoLoop::StandBy() {
  for (;;) {
    epoll_event event;
    if (epoll_wait(standby_.get(), &event, 1, -1) != 1) continue;  // a signal
    if (!TryLead()) continue;
    Poll(0);
    Resign();
    HidlThreadPool().LeadIsFree();
  }
}

void IoLoop::Poll(int time_ms) {
  epoll_event event;
  if (epoll_wait(epoll_.get(), &event, 1, time_ms) != 1) return;  // a signal
  std::shared_ptr<IoHandler> handler;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = handlers_.find(event.data.u64);
    if (found != handlers_.end()) handler = found->second;
  }
  if (handler != nullptr) handler->OnReady(event.events);
}

}  // namespace bthal::rpc
