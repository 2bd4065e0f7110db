// A pty in the place of the UART, and the service's transport open on it.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "hci_flow_control.h"
#include "support/vectors.h"

namespace test {

class Pty {
 public:
  Pty();
  ~Pty();
  Pty(const Pty&) = delete;
  Pty& operator=(const Pty&) = delete;

  int master() const { return master_; }
  const std::string& path() const { return path_; }  // of the host's end
  // Exactly what the host has written since the last call.
  Bytes TakeWritten();
  void WriteToHost(const Bytes& bytes);
  // Bytes that the host has not read yet.
  int Unread() const;
  // The far end is gone: the host reads an end of file and cannot write.
  void HangUp();

 private:
  int master_ = -1;
  int slave_ = -1;  // kept open, so that the host may come and go
  std::string path_;
  Bytes unread_;  // written by the host, not taken yet
};

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

  Pty pty_;
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
