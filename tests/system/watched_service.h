#pragma once

#include <functional>
#include <string>
#include <vector>

#include "system/handset.h"

namespace test {

// A handset whose service may end, but only as it should.
class WatchedService {
 public:
  explicit WatchedService(Mode mode, const std::vector<std::string>& simulator_options = {});

  Handset& handset() { return handset_; }
  bool Runs() { return !handset_.service().Wait(std::chrono::milliseconds(0)); }
  // Waits for its end and tells what was wrong about it. Empty when it left a report and ended as
  // belongs to it: with an abort and crash files, or with SIGKILL where that is the way.
  std::string WaitForEnd();

  // Threads and descriptors of the process.
  struct Possessions {
    std::vector<std::string> threads;
    std::vector<std::string> descriptors;
  };
  Possessions Owns();
  // Waits until the process owns no more than it did then. Empty, or what it owns.
  std::string WaitForNoMoreThan(const Possessions& before);
  // Waits until the simulator's account says that nobody holds a wake lock.
  bool WaitForReleasedWakeLock();

 private:
  Handset handset_;
};

// The end of a log, enough to see what happened last.
std::string Tail(const std::string& log);

// Runs on a thread for each of count handsets: they mostly wait.
void OnEach(int count, const std::function<void(int index)>& run);

// Printed. BTHAL_TEST_SEED repeats a run.
unsigned NewSeed();

}  // namespace test
