// What LE advertisers tell.
#pragma once

#include <string>
#include <vector>

#include "tools/hci/packet.h"

namespace bthalctl {

// One report of an LE advertiser.
struct Advertisement {
  Bytes address;
  bool random = false;
  bool connectable = false;
  bool scan_response = false;
  int rssi = 127;    // dBm; 127: not available
  std::string name;  // empty when the data hold none
};
// All reports of an LE (extended) advertising report event; empty for any other packet.
std::vector<Advertisement> Advertisements(const Packet& event);

}  // namespace bthalctl
