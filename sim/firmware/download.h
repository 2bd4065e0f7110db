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

  // A Write RAM record's parameters; returns its HCI status.
  uint8_t Write(ByteView params);
  // Launch RAM's parameters; 0 when the whole image has come and its checksum is right.
  uint8_t Launch(ByteView params);
  // A record that is no part of a firmware file.
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
