// Firmware files (".hcd"): what the controllers of this simulator load.
//
// A file is a sequence of HCI command records: opcode (16 bits, little-endian), parameter length
// (8 bits), parameters. Write RAM (0xFC4C) carries a 32-bit address and data; Launch RAM (0xFC4E)
// with FF FF FF FF starts what was loaded. The first record writes the header to kHeaderAddress:
//
//   offset size
//   0      8    "ZVKFWIMG"
//   8      2    format, 1
//   10     1    chip id that the image is for, 0 for any
//   11     1    0
//   12     4    address of the image
//   16     4    size of the image in bytes
//   20     4    CRC-32 (IEEE 802.3) of the image
//   24     32   name, filled up with zero bytes: the controller's local name once it runs
//
// The records after it write the image from its address on, without gap or overlap.
#pragma once

#include <cstdint>
#include <string>

#include "sim/wire.h"

namespace zvk {

constexpr uint16_t kWriteRamOpcode = 0xFC4C;
constexpr uint16_t kLaunchRamOpcode = 0xFC4E;
constexpr uint32_t kLaunchAddress = 0xFFFFFFFF;
constexpr uint32_t kHeaderAddress = 0x001FFF00;
constexpr size_t kHeaderBytes = 56;
constexpr char kImageMagic[] = "ZVKFWIMG";
constexpr uint16_t kImageFormat = 1;
constexpr size_t kImageNameBytes = 32;

struct ImageOptions {
  size_t size = 120000;  // bytes of the image
  uint8_t chip_id = 0;   // 0 for any
  std::string name = "ZVK firmware";
  uint32_t seed = 1;  // the image's content
  bool launch = true;
  bool bad_checksum = false;
};

// The content of a firmware file.
Bytes MakeFirmware(const ImageOptions& options);

// crc is the result for what came before, 0 at the start.
uint32_t Crc32(uint32_t crc, ByteView bytes);

}  // namespace zvk
