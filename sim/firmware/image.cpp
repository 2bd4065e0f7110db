#include "sim/firmware/image.h"

#include <zlib.h>

#include <random>

namespace zvk {
namespace {

constexpr uint32_t kImageAddress = 0x00200000;
constexpr size_t kRecordData = 240;  // bytes of image in a record

void AddRecord(Writer* file, uint16_t opcode, ByteView params) {
  file->U16(opcode).U8(static_cast<unsigned>(params.size())).Append(params);
}

}  // namespace

uint32_t Crc32(uint32_t crc, ByteView bytes) {
  return static_cast<uint32_t>(crc32(crc, bytes.data(), static_cast<uInt>(bytes.size())));
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
