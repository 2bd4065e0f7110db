#include "sim/base/event_loop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <system_error>

namespace zvk {

EventLoop::EventLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      timer_fd_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (!epoll_.ok() || !timer_fd_.ok()) {
    throw std::system_error(errno, std::generic_category(), "cannot make the event loop");
  }
  Watch(timer_fd_.get(), EPOLLIN, [this](uint32_t) {
    uint64_t expired;
    while (read(timer_fd_.get(), &expired, sizeof(expired)) > 0) {
    }
    armed_ = Time::max();
  });
}

void EventLoop::Watch(int fd, uint32_t events, std::function<void(uint32_t)> ready) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot watch a descriptor");
  }
  watched_[fd] = std::make_shared<std::function<void(uint32_t)>>(std::move(ready));
}

void EventLoop::Change(int fd, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

void EventLoop::Unwatch(int fd) {
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  watched_.erase(fd);
}

EventLoop::TimerId EventLoop::After(Duration delay, std::function<void()> run) {
  const TimerId id = ++last_timer_;
  const Time time = Clock::now() + delay;
  timers_.emplace(std::make_pair(time, id), std::move(run));
  due_[id] = time;
  return id;
}

void EventLoop::Cancel(TimerId* id) {
  const auto found = due_.find(*id);
  if (found != due_.end()) {
    timers_.erase({found->second, *id});
    due_.erase(found);
  }
  *id = kNoTimer;
}

void EventLoop::RunDueTimers() {
  const Time now = Clock::now();
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    auto first = timers_.begin();
    const std::function<void()> run = std::move(first->second);
    due_.erase(first->first.second);
    timers_.erase(first);
    run();
  }
}

void EventLoop::ArmTimer() {
  if (timers_.empty() || timers_.begin()->first.first >= armed_) return;
  armed_ = timers_.begin()->first.first;
  const auto since_epoch = armed_.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_epoch);
  itimerspec spec{};
  spec.it_value.tv_sec = static_cast<time_t>(seconds.count());
  spec.it_value.tv_nsec = static_cast<long>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch - seconds).count());
  timerfd_settime(timer_fd_.get(), TFD_TIMER_ABSTIME, &spec, nullptr);
}

void EventLoop::Run() {
  while (running_) {
    RunDueTimers();
    if (idle_) idle_();
    if (!running_) return;
    ArmTimer();
    epoll_event events[16];
    const int count = epoll_wait(epoll_.get(), events, 16, -1);
    // First, as on a busy machine this process may be late: input that came after a timer was due
    // must not be handled before it.
    RunDueTimers();
    for (int i = 0; i < count; ++i) {
      const auto found = watched_.find(events[i].data.fd);
      if (found == watched_.end()) continue;  // unwatched by a callback of this round
      const auto ready = found->second;
      (*ready)(events[i].events);
    }
  }
}

}  // namespace zvk
