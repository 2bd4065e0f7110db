#pragma once

#include <cstdint>
#include <deque>
#include <map>

#include "sim/controller/hci_out.h"
#include "sim/wire.h"

namespace zvk {

// Flow control of data in both directions (Bluetooth Core 5.3, Vol 4, Part E, 4.1, 4.2).
//
// From the host: counts the packets in each kind of buffer until they are reported as completed. A
// packet more than there are buffers is dropped and reported as Data Buffer Overflow.
// To the host: when the host has switched its own flow control on, ACL packets wait for its
// credits.
class DataFlow {
 public:
  enum class Buffer { kAcl, kLeAcl, kIso };

  explicit DataFlow(HciOut& out) : out_(out) {}

  // Returns false when the host sent more than there is room for.
  bool Take(Buffer buffer, uint16_t handle);
  // Reports everything taken so far as completed.
  void Complete();
  // The handle is gone, and with it what was not reported.
  void Forget(uint16_t handle) { completed_.erase(handle); }

  void SendAcl(ByteView packet);
  void SetHostFlowControl(bool on);
  void SetHostBuffers(uint16_t acl_packets) { host_credits_ = acl_packets; }
  void HostCompleted(uint16_t packets);

  void Reset();

 private:
  HciOut& out_;
  std::map<Buffer, unsigned> used_;
  std::map<uint16_t, uint16_t> completed_;  // packets by handle
  bool host_flow_control_ = false;
  unsigned host_credits_ = 0;
  std::deque<Bytes> waiting_;  // for the host's credits
};

}  // namespace zvk
