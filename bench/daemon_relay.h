#pragma once

#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>

#include <vector>

#include "daemon.h"
#include "relay.h"
#include "sink.h"

namespace bench {

// The service, attached to and brought up.
class DaemonRelay : public Relay {
 public:
  // The root folder of this process must be the daemon's. Throws std::runtime_error when it does
  // not come up.
  DaemonRelay(const Daemon& daemon, Sink* sink);

  std::vector<pid_t> pids() const override { return {pid_}; }
  void SendCommand() override;
  void SendAcl(const Bytes& data) override;

 private:
  const pid_t pid_;
  android::sp<android::hardware::bluetooth::V1_1::IBluetoothHci> hal_;
};

}  // namespace bench
