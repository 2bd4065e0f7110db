#include "sim/firmware/image.h"

#include <algorithm>
#include <array>
#include <random>

namespace zvk {
namespace {

constexpr uint32_t kImageAddress = 0x00200000;
constexpr size_t kRecordData = 240;  // bytes of image in a record

void AddRecord(Writer* file, uint16_t opcode, ByteView params) {
  file->U16(opcode).U8(static_cast<unsigned>(params.size())).Append(params);
}

std::array<uint32_t, 256> MakeCrcTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < table.size(); ++i) {
    uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320u : 0u);
    table[i] = value;
  }
  return table;
}

}  // namespace

uint32_t Crc32(uint32_t crc, ByteView bytes) {
  static const std::array<uint32_t, 256> kTable = MakeCrcTable();
  crc = ~crc;
  for (const uint8_t byte : bytes) crc = (crc >> 8) ^ kTable[(crc ^ byte) & 0xFF];
  return ~crc;
}

Bytes MakeFirmware(const ImageOptions& options) {
  std::mt19937 random(options.seed);
  Bytes image(options.size);
  for (uint8_t& byte : image) byte = static_cast<uint8_t>(random());

  Writer header;
  header.U32(kHeaderAddress).Append(ByteView(std::string(kImageMagic))).U16(kImageFormat);
  header.U8(options.chip_id).U8(0).U32(kImageAddress).U32(static_cast<uint32_t>(image.size()));
  header.U32(Crc32(0, image) ^ (options.bad_checksum ? 1u : 0u));
  const std::string name = options.name.substr(0, kImageNameBytes);
  header.Append(ByteView(name)).Zeros(kImageNameBytes - name.size());

  Writer file;
  AddRecord(&file, kWriteRamOpcode, header);
  for (size_t at = 0; at < image.size(); at += kRecordData) {
    Writer record;
    record.U32(kImageAddress + static_cast<uint32_t>(at));
    record.Append(ByteView(image).Sub(at, kRecordData));
    AddRecord(&file, kWriteRamOpcode, record);
  }
  if (options.launch) AddRecord(&file, kLaunchRamOpcode, Writer().U32(kLaunchAddress));
  return file.bytes();
}

}  // namespace zvk
