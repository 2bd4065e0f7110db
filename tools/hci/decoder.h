// Packets in words, one line per packet.
#pragma once

#include <string>

#include "tools/hci/packet.h"

namespace bthalctl {

// Without the packet's direction and without a newline: "EVT Command Complete: Reset (0x0C03):
// Success". A packet whose length field disagrees with its size, or that ends early, is shown as
// such.
std::string Describe(const Packet& packet);

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
