#pragma once

#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>

#include <string>

#include "relay.h"
#include "scheduling.h"
#include "sink.h"

namespace bench {

// The service, attached to and brought up, on the root folder of this process.
class DaemonRelay : public Relay {
 public:
  // Throws std::runtime_error when it does not come up.
  DaemonRelay(const std::string& program, Scheduling scheduling, Sink* sink);

  const test::ChildProcess& process() const override { return daemon_; }
  void SendCommand() override;

 private:
  const test::ChildProcess daemon_;
  android::sp<android::hardware::bluetooth::V1_1::IBluetoothHci> hal_;
};

}  // namespace bench
