#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>

namespace android::hardware::bluetooth {

// The path of the controller's firmware patch: the first of the candidates for this chip that
// exists, else the bare directory. name gets the file's name, or stays as it is.
std::string FindFirmwarePatch(uint8_t chip_id, std::string* name);

// A patch file (".hcd"): HCI commands one after the other, each as opcode (little-endian),
// parameter length and parameters. Read from the start to the end by one thread.
class FirmwarePatch {
 public:
  struct Record {
    uint16_t opcode = 0;
    uint8_t length = 0;
    uint8_t params[255] = {};
  };
  enum class Result { kRecord, kEnd, kShortHeader, kShortParameters };

  // Returns false with errno set when the file cannot be opened.
  bool Open(const std::string& path);

  // Takes the next record; after a short one count() and errno tell more.
  Result Next(Record* record);
  // Bytes that the last read gave, -1 when it failed.
  ssize_t count() const { return count_; }

 private:
  // Reads up to size bytes, as many as there are.
  void Read(uint8_t* bytes, size_t size);

  base::unique_fd fd_;
  ssize_t count_ = 0;
};

}  // namespace android::hardware::bluetooth
