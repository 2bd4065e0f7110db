#pragma once

#include <android-base/unique_fd.h>

#include <string>

#include "sim/controller/chip.h"

namespace zvk {

// The folder that stands for the handset's "/". Makes the folders and the plain files; what is
// there already (a configuration, a firmware, properties) is kept. One simulator uses a root folder
// at a time. Device-like files are made by whoever plays them, at the paths that are given here.
class RootFolder {
 public:
  struct Options {
    std::string path;
    uint32_t seed = 1;
    size_t firmware_bytes = 120000;
    bool co_processor = false;  // the service's configuration says so
  };

  // Throws std::runtime_error with a one-line reason.
  RootFolder(const Options& options, const ChipPreset& chip);
  ~RootFolder();
  RootFolder(const RootFolder&) = delete;
  RootFolder& operator=(const RootFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  std::string status_file() const { return *this / "run/zvksim/status"; }

 private:
  void Lock();
  void WriteNew(const std::string& name, const std::string& content) const;
  void WriteFirmware(const std::string& file, uint8_t chip_id, const Options& options) const;

  std::string path_;  // absolute
  ::android::base::unique_fd lock_;
};

}  // namespace zvk
