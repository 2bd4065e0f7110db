#pragma once

#include <functional>
#include <string>

#include "tools/hci/advertisement.h"
#include "tools/link/exchange.h"

namespace bthalctl {

// Prepares a controller whose state is unknown: HCI Reset, then UnmaskEvents().
void ResetController(Exchange& exchange);
// Lets every event through that bthalctl uses; other settings of the controller stay.
void UnmaskEvents(Exchange& exchange);

// Listens for advertisers until deadline, or until heard returns true. Throws Interrupted.
void Scan(Exchange& exchange, bool active, TimePoint deadline,
          const std::function<bool(const Advertisement&)>& heard);

// A connection to an LE peer, as its central. One thread.
class LePeer {
 public:
  // target: an address, or the name that the peer advertises. Throws Failure when it is not heard
  // or does not answer.
  LePeer(Exchange& exchange, const std::string& target);
  // Disconnects, if the connection still stands.
  ~LePeer();
  LePeer(const LePeer&) = delete;
  LePeer& operator=(const LePeer&) = delete;

  uint16_t handle() const { return handle_; }
  const Advertisement& advertisement() const { return advertisement_; }
  // Reads the GAP device name over ATT. Throws Failure.
  std::string ReadDeviceName();

 private:
  void SendAtt(const Bytes& message);
  // Returns the answer: the response, or the error response. A request of the peer's own, which
  // may be a client, too, is refused.
  Bytes AttRequest(const Bytes& request);

  Exchange& exchange_;
  Advertisement advertisement_;
  uint16_t handle_ = 0;
};

}  // namespace bthalctl
