#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/wire.h"

namespace zvk {

using Address = std::array<uint8_t, 6>;  // as on the wire, least significant byte first

inline Address AddressAt(ByteView params, size_t offset) {
  Address address{};
  for (size_t i = 0; i < address.size(); ++i) address[i] = params[offset + i];
  return address;
}

// A kind of controller that can be simulated.
struct ChipPreset {
  std::string name;           // of --chip
  uint8_t id;                 // answered to the verbose configuration command
  bool needs_patch;           // without a patch it knows no LE commands
  bool has_download_config;   // knows Set Download Config (fast download)
  bool always_fast;           // never answers a firmware record
  std::string firmware_file;  // the file made for it, besides the one for any chip; or empty
  std::string what;           // for --help
};

const std::vector<ChipPreset>& ChipPresets();
const ChipPreset* FindChip(const std::string& name);

// What is true of a controller from its start on: it lives as long as the firmware that runs.
struct ChipState {
  const ChipPreset* preset = nullptr;
  uint16_t vendor_version = 0x0100;  // of the vendor capabilities
  bool patched = false;
  std::string local_name;
  Address address{};  // until the host writes one
  std::optional<Address> provisioned;
  bool sleep_mode = false;

  const Address& CurrentAddress() const { return provisioned ? *provisioned : address; }
};

constexpr uint8_t kCore53 = 0x0C;        // version number of Core 5.3
constexpr uint16_t kNoCompany = 0xFFFF;  // reserved for tests
constexpr uint32_t kBootSpeed = 115200;  // bit/s

}  // namespace zvk
