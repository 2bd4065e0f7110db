#pragma once

#include <chrono>
#include <cstddef>

#include "relay.h"
#include "serial_controller.h"
#include "sink.h"

namespace bench {

// What a relay did with data as fast as it takes them, both ways at once. Megabytes of packets
// without their type bytes.
struct BulkFigures {
  size_t bytes = 0;  // sent, of both ways
  size_t lost_bytes = 0;
  double to_host_mb_per_s = 0;
  double to_controller_mb_per_s = 0;
  double cpu_ms_per_mb = 0;  // of both ways
};

// Sends packets of 1021 bytes of ACL data each way for that time.
BulkFigures MoveBulk(std::chrono::milliseconds time, SerialController* controller, Relay* relay,
                     Sink* sink);

}  // namespace bench
