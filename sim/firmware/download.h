#pragma once

#include <string>

#include "sim/wire.h"

namespace zvk {

// The controller's side of a firmware download, from Download Minidriver to Launch RAM. It checks
// every record against the file format (sim/firmware/image.h); after the first bad one the download
// is void: everything that follows is refused, Launch RAM included, until a new download begins.
class Download {
 public:
  explicit Download(uint8_t chip_id) : chip_id_(chip_id) {}

  // Takes the parameters of a Write RAM record; returns the HCI status.
  uint8_t Write(ByteView params);
  // Takes the parameters of Launch RAM; returns 0 when the image is complete and its checksum
  // right.
  uint8_t Launch(ByteView params);
  // Voids the download.
  uint8_t Refuse(const std::string& reason);

  // Why the download is void; empty while it is not.
  const std::string& fault() const { return fault_; }
  // From the image's header.
  const std::string& name() const { return name_; }

 private:
  uint8_t ReadHeader(ByteView header);

  const uint8_t chip_id_;
  bool have_header_ = false;
  uint32_t next_address_ = 0;
  uint32_t bytes_left_ = 0;
  uint32_t expected_crc_ = 0;
  uint32_t crc_ = 0;
  std::string name_;
  std::string fault_;
};

}  // namespace zvk
