#include "sim/firmware/download.h"

#include <cstdio>
#include <cstring>

#include "sim/firmware/image.h"
#include "sim/wire.h"

namespace zvk {
namespace {

constexpr size_t kAddressBytes = 4;

std::string Hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08X", value);
  return text;
}

}  // namespace

uint8_t Download::Refuse(const std::string& reason) {
  if (fault_.empty()) fault_ = reason;
  return status::kInvalidParameters;
}

uint8_t Download::ReadHeader(ByteView header) {
  if (header.size() != kHeaderBytes || std::memcmp(header.data(), kImageMagic, 8) != 0) {
    return Refuse("the first record is no image header");
  }
  if (header.U16(8) != kImageFormat) return Refuse("unknown image format");
  if (header[10] != 0 && header[10] != chip_id_) return Refuse("the image is for another chip");
  next_address_ = header.U32(12);
  bytes_left_ = header.U32(16);
  expected_crc_ = header.U32(20);
  name_ = header.Sub(24, kImageNameBytes).Text();
  name_ = name_.substr(0, name_.find('\0'));
  have_header_ = true;
  return status::kSuccess;
}

uint8_t Download::Write(ByteView params) {
  if (!fault_.empty()) return status::kInvalidParameters;
  if (params.size() <= kAddressBytes) return Refuse("a record without data");
  const uint32_t address = params.U32(0);
  const ByteView data = params.From(kAddressBytes);
  if (!have_header_) {
    if (address != kHeaderAddress) return Refuse("the first record is no image header");
    return ReadHeader(data);
  }
  if (address != next_address_) {
    return Refuse("a record for " + Hex32(address) + " where " + Hex32(next_address_) +
                  " was next");
  }
  if (data.size() > bytes_left_) return Refuse("more data than the header announced");
  next_address_ += static_cast<uint32_t>(data.size());
  bytes_left_ -= static_cast<uint32_t>(data.size());
  crc_ = Crc32(crc_, data);
  return status::kSuccess;
}

uint8_t Download::Launch(ByteView params) {
  if (!fault_.empty()) return status::kUnspecified;
  if (params.size() != 4 || params.U32(0) != kLaunchAddress) {
    Refuse("Launch RAM with an unknown address");
  } else if (!have_header_) {
    Refuse("Launch RAM without an image");
  } else if (bytes_left_ != 0) {
    Refuse(std::to_string(bytes_left_) + " bytes of the image are missing");
  } else if (crc_ != expected_crc_) {
    Refuse("wrong checksum");
  }
  return fault_.empty() ? status::kSuccess : status::kUnspecified;
}

}  // namespace zvk
