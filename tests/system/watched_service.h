#pragma once

#include <string>
#include <vector>

#include "system/handset.h"

namespace test {

// A handset whose service may end, but only as it should.
class WatchedService : public Handset {
 public:
  using Handset::Handset;

  bool Runs() { return !service().Wait(std::chrono::milliseconds(0)); }
  // Waits for its end and tells what was wrong about it. Empty when it left a report and ended as
  // belongs to it: with an abort and crash files, or with SIGKILL where that is the way.
  std::string WaitForEnd();
  // Waits until the process has come to rest with one thread of each kind at most and no more
  // descriptors than those need. Empty, or what it has instead.
  std::string WaitForRest();
  // Waits until the simulator's account says that nobody holds a wake lock.
  bool WaitForReleasedWakeLock() const;
};

// The end of a log, enough to see what happened last.
std::string Tail(const std::string& log);

// Printed. BTHAL_TEST_SEED repeats a run.
unsigned NewSeed();

}  // namespace test
