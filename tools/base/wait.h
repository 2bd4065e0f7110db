// Waiting for descriptors, for a time, and for a signal to stop.
#pragma once

#include <poll.h>

#include <chrono>
#include <vector>

namespace bthalctl {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
constexpr TimePoint kNever = TimePoint::max();

// From now on SIGINT and SIGTERM make the waits below throw Interrupted; before, they end the
// process. SIGPIPE is ignored.
void CatchStopSignals();

std::chrono::milliseconds Milliseconds(double seconds);
// The time in so many seconds; 0: never.
TimePoint EndAfter(double seconds);

// After Interrupted, for a command that ends in its own way: lets it wait once more.
void ForgetStopSignal();

// poll() with a deadline; the descriptor of stop signals is watched besides. Returns whether any of
// the descriptors is ready. Throws Interrupted.
bool Wait(std::vector<pollfd>& descriptors, TimePoint deadline);
bool WaitReadable(int fd, TimePoint deadline);

}  // namespace bthalctl
