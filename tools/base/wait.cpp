#include "tools/base/wait.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "tools/base/failure.h"

namespace bthalctl {
namespace {

// Set on the thread that holds the attachment, read on any and by the handler.
std::atomic<int> stop_fd{-1};
std::atomic<int> stop_signal{0};

void OnStopSignal(int number) {
  stop_signal = number;
  const int saved = errno;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = write(stop_fd, &one, sizeof one);
  errno = saved;
}

// For poll(), rounded up so that a wait never ends before its deadline.
int PollTimeout(TimePoint deadline) {
  if (deadline == kNever) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, 60'000));
}

}  // namespace

std::string WithErrno(const std::string& text) { return text + ": " + std::strerror(errno); }

void CatchStopSignals() {
  if (stop_fd >= 0) return;
  stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stop_fd < 0) throw Failure(WithErrno("eventfd"));
  struct sigaction action = {};
  action.sa_handler = OnStopSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

std::chrono::milliseconds Milliseconds(double seconds) {
  return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

TimePoint EndAfter(double seconds) {
  return seconds > 0 ? Clock::now() + Milliseconds(seconds) : kNever;
}

void ForgetStopSignal() {
  uint64_t count = 0;
  [[maybe_unused]] const ssize_t ignored = read(stop_fd, &count, sizeof count);
}

bool Wait(std::vector<pollfd>& descriptors, TimePoint deadline) {
  descriptors.push_back({stop_fd, POLLIN, 0});
  int ready = 0;
  do {
    ready = poll(descriptors.data(), descriptors.size(), PollTimeout(deadline));
  } while ((ready < 0 && errno == EINTR) || (ready == 0 && Clock::now() < deadline));
  const bool stop = descriptors.back().revents != 0;
  descriptors.pop_back();
  if (ready < 0) throw Failure(WithErrno("poll"));
  if (stop) throw Interrupted{stop_signal};
  return ready > 0;
}

bool WaitReadable(int fd, TimePoint deadline) {
  std::vector<pollfd> one = {{fd, POLLIN, 0}};
  return Wait(one, deadline);
}

}  // namespace bthalctl
