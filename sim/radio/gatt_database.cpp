#include "sim/radio/gatt_database.h"

namespace zvk {
namespace {

constexpr uint8_t kMayRead = 0x02;
constexpr uint8_t kMayWriteCommand = 0x04;
constexpr uint8_t kMayWrite = 0x08;
constexpr uint8_t kMayNotify = 0x10;

Bytes Uuid16(uint16_t uuid) { return Writer().U16(uuid).bytes(); }

Bytes Uuid128(uint8_t last) {
  return {last, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x8E,
          0x56, 0x4A, 0xD0, 0x51, 0x00, 0x4B, 0x56, 0x5A};
}

Bytes Text(const char* text) { return ByteView(std::string(text)).Copy(); }

Attribute Service(uint16_t handle, const Bytes& uuid, uint16_t end) {
  return {handle, Uuid16(0x2800), uuid, true, false, end};
}

// The value follows at the next handle.
Attribute Characteristic(uint16_t handle, uint8_t properties, const Bytes& uuid) {
  return {handle, Uuid16(0x2803), Writer{properties}.U16(handle + 1u).Append(uuid).bytes()};
}

}  // namespace

Bytes ServiceUuid() { return Uuid128(1); }
Bytes CharacteristicUuid() { return Uuid128(2); }

std::vector<Attribute> MakeGattDatabase() {
  return {
      Service(1, Uuid16(0x1800), 5),
      Characteristic(2, kMayRead, Uuid16(0x2A00)),
      {kNameHandle, Uuid16(0x2A00), Text("ZVK GATT")},
      Characteristic(4, kMayRead, Uuid16(0x2A01)),
      {5, Uuid16(0x2A01), {0x00, 0x00}},
      Service(6, Uuid16(0x1801), 6),
      Service(7, ServiceUuid(), kValueConfigHandle),
      Characteristic(8, kMayRead | kMayWriteCommand | kMayWrite | kMayNotify, CharacteristicUuid()),
      {kValueHandle, CharacteristicUuid(), Text("hello"), true, true},
      {kValueConfigHandle, Uuid16(0x2902), {0x00, 0x00}, true, true},
  };
}

}  // namespace zvk
