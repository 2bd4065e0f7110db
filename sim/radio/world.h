#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "sim/controller/chip.h"
#include "sim/wire.h"

namespace zvk {

// What a host that connects finds at the other end.
enum class PeerKind { kNone, kLoop, kAtt };

// A device in the simulated air.
struct Advertiser {
  std::string name;
  uint8_t address_type;  // 0 public, 1 random
  Address address;
  std::chrono::milliseconds interval;
  int8_t rssi;
  bool scannable;
  PeerKind peer;  // other than kNone: connectable
  Bytes data;
  Bytes scan_response;

  bool connectable() const { return peer != PeerKind::kNone; }
};

// Everybody in the air, always the same.
const std::vector<Advertiser>& World();
const Advertiser* FindAdvertiser(uint8_t address_type, const Address& address);

}  // namespace zvk
