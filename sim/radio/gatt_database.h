#pragma once

#include <string>
#include <vector>

#include "sim/wire.h"

namespace zvk {

// An attribute of the ATT peer (Bluetooth Core 5.3, Vol 3, Part F, 3.2).
struct Attribute {
  uint16_t handle;
  Bytes type;  // UUID as on the wire, 2 or 16 bytes
  Bytes value;
  bool readable = true;
  bool writable = false;
  uint16_t group_end = 0;  // of a service declaration
};

// The attributes of the ATT peer: the GAP service with the device's name, and a service with one
// characteristic to read, write and be notified of.
constexpr uint16_t kNameHandle = 3;
constexpr uint16_t kValueHandle = 9;
constexpr uint16_t kValueConfigHandle = 10;  // client characteristic configuration

std::vector<Attribute> MakeGattDatabase();

// 5A564B00-51D0-4A56-8E00-000000000001 and …02, as on the wire.
Bytes ServiceUuid();
Bytes CharacteristicUuid();

}  // namespace zvk
