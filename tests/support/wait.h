// Waiting in tests: for a condition, with a deadline, never for a time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>

namespace test {

// Long enough for a loaded machine under a sanitizer; a test that needs it has failed.
constexpr std::chrono::seconds kDeadline{30};

// Asks condition every few milliseconds until it holds. Returns false once deadline has passed.
bool WaitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds deadline = kDeadline);

// Whether a thread of this process sleeps, as the kernel tells it.
bool IsAsleep(pid_t thread);

// full in a release build, a tenth of it under a sanitizer; BTHAL_TEST_SCALE times as much for a
// long run by hand. Printed, so that a run's summary tells
// what was run.
int Count(const char* what, int full);

}  // namespace test
