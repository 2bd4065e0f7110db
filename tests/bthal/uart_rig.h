// The service's transport, open on a pty in the place of the UART.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "hci_flow_control.h"
#include "support/pty.h"
#include "support/vectors.h"

namespace test {

// Links the UART of this process's configuration to a pty, opens the shim on it, records what the
// stack would get. Closes the shim at its end.
class UartRig {
 public:
  struct Packet {
    uint8_t type;
    Bytes bytes;
    bool operator==(const Packet& other) const {
      return type == other.type && bytes == other.bytes;
    }
  };

  UartRig();
  ~UartRig();
  UartRig(const UartRig&) = delete;
  UartRig& operator=(const UartRig&) = delete;

  bool Open();
  Pty& pty() { return pty_; }
  // Valid until the shim is closed; strong, so that late callers can be tried.
  const std::shared_ptr<android::hardware::bluetooth::hci::HciFlowControl>& flow() const {
    return flow_;
  }

  // Sends an event to the host and returns when the host is done with it.
  void DeliverEvent(const Bytes& event);
  // What has reached the stack since the last call.
  std::vector<Packet> TakeReceived();

 private:
  void Record(uint8_t type, const android::hardware::hidl_vec<uint8_t>& packet);

  LinkedPty pty_;
  std::shared_ptr<android::hardware::bluetooth::hci::HciFlowControl> flow_;
  std::mutex lock_;
  std::vector<Packet> received_;
  int markers_ = 0;
};

inline android::hardware::hidl_vec<uint8_t> ToVec(const Bytes& bytes) { return bytes; }
inline Bytes ToBytes(const android::hardware::hidl_vec<uint8_t>& packet) {
  return Bytes(packet.begin(), packet.end());
}

}  // namespace test
