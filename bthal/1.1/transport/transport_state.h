#pragma once

#include <cstdint>
#include <string>

#include "transport/transport.h"

namespace android::hardware::bluetooth::hci {

// How the service reaches the controller at one moment.
struct TransportState {
  uint32_t userial_type = kUserialClosed;
  std::string uart_port;   // path of the tty; for kUserialTty only
  bool ready = false;      // the port is open
  uint32_t line_baud = 0;  // bit/s that both ends have agreed upon; 0: unknown
  bool low_power = false;  // the low-power mode is on
  std::string loss;        // why there is no stream of packets; empty while there may be

  // Lines "name=value" for programs:
  //   transport   "serial line", "HCI socket" or "co-processor"; absent while closed
  //   state       "closed", "opening", "open" or "lost"; of a co-processor "connecting",
  //   "connected" path        of a serial line line_baud   where it is known, low_power ("on",
  //   "off"): both only while open loss        only when lost
  std::string Text() const;
};

}  // namespace android::hardware::bluetooth::hci
