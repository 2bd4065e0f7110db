// A firmware patch file: every record lies within the file, and they end with it.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "bring_up/firmware_patch.h"

using android::hardware::bluetooth::FirmwarePatch;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fd = memfd_create("patch", MFD_CLOEXEC);
  if (write(fd, data, size) != static_cast<ssize_t>(size)) abort();
  FirmwarePatch patch;
  if (!patch.Open("/proc/self/fd/" + std::to_string(fd))) abort();
  size_t seen = 0;
  FirmwarePatch::Record record;
  FirmwarePatch::Result result;
  while ((result = patch.Next(&record)) == FirmwarePatch::Result::kRecord) {
    if (record.opcode != (data[seen] | data[seen + 1] << 8)) abort();
    seen += 3u + record.length;
    if (seen > size) abort();
  }
  if (result == FirmwarePatch::Result::kEnd && seen != size) abort();
  close(fd);
  return 0;
}
