#define LOG_TAG "bthal.rpc"

#include "rpc/io_loop.h"

#include <android-base/logging.h>
#include <pthread.h>
#include <sys/epoll.h>

#include <thread>
#include <utility>

namespace bthal::rpc {

IoLoop& IoLoop::Get() {
  static auto* const loop = new IoLoop;
  return *loop;
}

IoLoop::IoLoop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll_.get() < 0) PLOG(FATAL) << "epoll_create1";
  std::thread thread([this] {
    for (;;) Poll();
  });
  pthread_setname_np(thread.native_handle(), "bthal-io");
  thread.detach();
}

void IoLoop::Add(uint64_t key, int descriptor, uint32_t events,
                 std::shared_ptr<IoHandler> handler) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    handlers_.emplace(key, std::move(handler));
  }
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) PLOG(FATAL) << "epoll_ctl";
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

void IoLoop::Poll() {
  epoll_event event;
  if (epoll_wait(epoll_.get(), &event, 1, -1) != 1) return;  // a signal
  std::shared_ptr<IoHandler> handler;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = handlers_.find(event.data.u64);
    if (found != handlers_.end()) handler = found->second;
  }
  if (handler != nullptr) handler->OnReady(event.events);
}

}  // namespace bthal::rpc
