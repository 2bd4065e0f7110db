#include "bring_up/firmware_patch.h"

#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <fcntl.h>
#include <root_folder/root_folder.h>
#include <unistd.h>

#include <vector>

namespace android::hardware::bluetooth {
namespace {

using ::android::base::GetBoolProperty;
using ::android::base::GetProperty;

constexpr char kFirmwareDirectory[] = "/vendor/firmware/tovu/";
constexpr char kDefaultPatch[] = "ZVK.hcd";
constexpr size_t kHeaderSize = 3;

std::vector<std::string> Candidates(uint8_t chip_id) {
  std::vector<std::string> names;
  if (GetProperty("persist.bluetooth.le_audio_test", "false") == "true" ||
      (GetBoolProperty("persist.bluetooth.leaudio_switcher.enabled", false) &&
       GetProperty("ro.build.type", "") != "user")) {
    names.emplace_back("ZVK_LEAUDIO.hcd");
  }
  const std::string selected = GetProperty("persist.bluetooth.firmware.selection", kDefaultPatch);
  if (selected == "BTFW_D.hcd" || selected == "BTFW_B.hcd") names.push_back(selected);
  if (chip_id == 0xB5 || chip_id == 0xAE) {
    names.push_back(base::StringPrintf("ZVK_%2X.hcd", chip_id));
  }
  names.emplace_back(kDefaultPatch);
  return names;
}

}  // namespace

std::string FindFirmwarePatch(uint8_t chip_id, std::string* name) {
  for (const std::string& candidate : Candidates(chip_id)) {
    if (root_folder::Exists(kFirmwareDirectory + candidate)) {
      *name = candidate;
      return kFirmwareDirectory + candidate;
    }
  }
  return kFirmwareDirectory;
}

bool FirmwarePatch::Open(const std::string& path) {
  fd_.reset(root_folder::Open(path, O_RDONLY));
  return fd_.get() >= 0;
}

void FirmwarePatch::Read(uint8_t* bytes, size_t size) {
  count_ = 0;
  while (static_cast<size_t>(count_) < size) {
    const ssize_t n =
        TEMP_FAILURE_RETRY(read(fd_.get(), bytes + count_, size - static_cast<size_t>(count_)));
    if (n < 0 && count_ == 0) count_ = -1;
    if (n <= 0) return;
    count_ += n;
  }
}

FirmwarePatch::Result FirmwarePatch::Next(Record* record) {
  uint8_t header[kHeaderSize];
  Read(header, sizeof header);
  if (count_ == 0) return Result::kEnd;
  if (count_ < static_cast<ssize_t>(sizeof header)) return Result::kShortHeader;
  record->opcode = static_cast<uint16_t>(header[0] | header[1] << 8);
  record->length = header[2];
  Read(record->params, record->length);
  if (count_ < record->length) return Result::kShortParameters;
  return Result::kRecord;
}

}  // namespace android::hardware::bluetooth
