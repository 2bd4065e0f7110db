// A firmware patch file, read to its end or to what is wrong with it.
#include "bring_up/firmware_patch.h"
#include "target.h"

using android::hardware::bluetooth::FindFirmwarePatch;
using android::hardware::bluetooth::FirmwarePatch;

std::vector<std::string> fuzz::Seeds() { return Packets("firmware.txt"); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Log(size);
  const std::string file(data, data + size);
  fuzz::Put("/vendor/firmware/tovu/ZVK.hcd", file);
  std::string name;
  FirmwarePatch patch;
  fuzz::Require(patch.Open(FindFirmwarePatch(0, &name)) && name == "ZVK.hcd", "the file is found");
  std::string read;
  FirmwarePatch::Record record;
  FirmwarePatch::Result result;
  while ((result = patch.Next(&record)) == FirmwarePatch::Result::kRecord) {
    read += {static_cast<char>(record.opcode), static_cast<char>(record.opcode >> 8),
             static_cast<char>(record.length)};
    read.append(record.params, record.params + record.length);
  }
  fuzz::Require(file.compare(0, read.size(), read) == 0, "the records are the file");
  const size_t rest = size - read.size();
  fuzz::Require(result == FirmwarePatch::Result::kEnd           ? rest == 0
                : result == FirmwarePatch::Result::kShortHeader ? rest > 0 && rest < 3
                                                                : rest < 3u + record.length,
                "the end of the file is told from a record that is cut");
  return 0;
}
