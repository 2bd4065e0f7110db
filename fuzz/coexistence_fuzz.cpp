// What the WLAN driver writes to the coexistence device, until its end or a reset notice.
#include <android/log.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "coex_device.h"
#include "target.h"

using android::hardware::bluetooth::coex_device::CoexDevice;

namespace {

sem_t ended;  // the thread of the device

// Its last words; with a reset notice it ends at the fatal error.
void Watch(const __android_logger_data* /*data*/, const char* message) {
  if (strstr(message, "Thread done") != nullptr || strstr(message, "fatal error") != nullptr) {
    sem_post(&ended);
  }
}

}  // namespace

std::vector<std::string> fuzz::Seeds() {
  std::vector<std::string> seeds = Packets("coexistence.txt");
  Append(&seeds, {{1, 0, 1, 0x42}, {1, 0, 1, 0x43}, {1, 0, 1, 0x44, 1, 0, 1, 0x43}});
  return seeds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::LogEverything();
  __android_log_set_logger(Watch);
  const std::string file(data, data + size);
  fuzz::Put("/dev/wbrc", file);
  size_t notice = 0;  // where it stands
  while (notice < size && !(data[notice] == 1 && notice + 3 < size && data[notice + 2] == 1 &&
                            (data[notice + 3] | 1) == 0x43)) {
    notice += 4;
  }
  const int fatal_errors = fuzz::FatalErrors();
  int notices = 0;
  sem_init(&ended, 0, 0);
  CoexDevice device;
  fuzz::Require(device.DeviceOpen([&] { ++notices; }, 0), "the device can be opened");
  TEMP_FAILURE_RETRY(sem_wait(&ended));
  device.DeviceClose();
  fuzz::Require(notices == (notice < size ? 1 : 0), "one call for the first notice");
  fuzz::Require(fuzz::FatalErrors() - fatal_errors == notices, "a notice is a fatal error");
  return 0;
}
