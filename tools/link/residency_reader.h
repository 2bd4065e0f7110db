#pragma once

#include <aidl/android/hardware/power/stats/StateResidency.h>

#include <chrono>
#include <memory>
#include <vector>

namespace bthalctl {

using ::aidl::android::hardware::power::stats::StateResidency;

class ResidencyProvider;

// Plays the power-statistics provider, to which the Bluetooth service registers itself and which
// alone may ask it for its residency. Other processes find it until this one ends.
class ResidencyReader {
 public:
  // Throws Failure(kBusy) when another process is the provider.
  ResidencyReader();

  // Waits for Bluetooth's registration. Throws Failure when there is none in time.
  void WaitForBluetooth(std::chrono::milliseconds timeout);
  // The totals that the controller told last. Each call makes the service ask the controller for
  // fresh ones, which the next call returns. Throws Failure.
  std::vector<StateResidency> Read();

 private:
  std::shared_ptr<ResidencyProvider> provider_;
};

}  // namespace bthalctl
