#pragma once

#include <string>
#include <vector>

#include "system/handset.h"

namespace test {

// A handset whose service may end, but only in one of the ways that it should.
class WatchedService : public Handset {
 public:
  using Handset::Handset;

  bool Runs() { return !service().Wait(std::chrono::milliseconds(0)); }
  // Waits for the end of the service. Returns what was wrong about it, empty when it left a report
  // and ended as that report requires: with an abort and crash files, or with SIGKILL.
  std::string WaitForEnd();
  // Waits until the process has at most one thread of each name and no more descriptors than a
  // controller that is up needs. Returns an empty text, or what the process has instead.
  std::string WaitForRest();
  // Waits until the simulator's account says that nobody holds a wake lock.
  bool WaitForReleasedWakeLock() const;
};

// The end of a log, enough to see what happened last.
std::string Tail(const std::string& log);

// Printed. BTHAL_TEST_SEED repeats a run.
unsigned NewSeed();

}  // namespace test
