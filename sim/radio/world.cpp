#include "sim/radio/world.h"

#include "sim/radio/gatt_database.h"

namespace zvk {
namespace {

using std::chrono::milliseconds;

// Advertising data structures (Bluetooth Core Specification Supplement, Part A).
constexpr uint8_t kFlags = 0x01;
constexpr uint8_t kServices128 = 0x07;
constexpr uint8_t kCompleteName = 0x09;
constexpr uint8_t kManufacturer = 0xFF;
constexpr uint8_t kLeOnlyDiscoverable = 0x06;

Writer& Add(Writer& data, uint8_t type, ByteView value) {
  return data.U8(static_cast<unsigned>(value.size() + 1)).U8(type).Append(value);
}

Bytes Flags() {
  Writer data;
  return Add(data, kFlags, Writer{kLeOnlyDiscoverable}).bytes();
}

Bytes FlagsAndName(const std::string& name) {
  Writer data;
  Add(data, kFlags, Writer{kLeOnlyDiscoverable});
  return Add(data, kCompleteName, ByteView(name)).bytes();
}

Bytes Name(const std::string& name) {
  Writer data;
  return Add(data, kCompleteName, ByteView(name)).bytes();
}

Bytes BeaconData() {
  constexpr uint8_t kPayload[] = {0xFF, 0xFF, 0x01};  // the company reserved for tests, a byte
  Writer data;
  Add(data, kCompleteName, ByteView(std::string("ZVK Beacon")));
  return Add(data, kManufacturer, {kPayload, sizeof kPayload}).bytes();
}

Bytes GattData() {
  Writer data;
  Add(data, kFlags, Writer{kLeOnlyDiscoverable});
  return Add(data, kServices128, ServiceUuid()).bytes();
}

constexpr Address PublicAddress(uint8_t last) { return {last, 0x00, 0xAD, 0x4B, 0x56, 0x5A}; }
constexpr Address StaticAddress(uint8_t last) { return {last, 0x00, 0xAD, 0x4B, 0x56, 0xC2}; }

}  // namespace

const std::vector<Advertiser>& World() {
  static const std::vector<Advertiser> kWorld = {
      {"ZVK Beacon",
       0,
       PublicAddress(1),
       milliseconds(100),
       -71,
       false,
       PeerKind::kNone,
       BeaconData(),
       {}},
      {"ZVK Sensor", 1, StaticAddress(2), milliseconds(250), -83, true, PeerKind::kNone, Flags(),
       Name("ZVK Sensor")},
      {"ZVK Loop",
       1,
       StaticAddress(3),
       milliseconds(60),
       -58,
       true,
       PeerKind::kLoop,
       FlagsAndName("ZVK Loop"),
       {}},
      {"ZVK GATT", 0, PublicAddress(4), milliseconds(40), -44, true, PeerKind::kAtt, GattData(),
       Name("ZVK GATT")},
  };
  return kWorld;
}

const Advertiser* FindAdvertiser(uint8_t address_type, const Address& address) {
  for (const Advertiser& advertiser : World()) {
    // Identity address types (2, 3) differ from the plain ones in bit 1.
    if (advertiser.address_type == (address_type & 1) && advertiser.address == address) {
      return &advertiser;
    }
  }
  return nullptr;
}

}  // namespace zvk
