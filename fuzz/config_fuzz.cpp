// The vendor configuration files. They are read once a process, so each input is read by a child.
#include <android/log.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "conf.h"
#include "root_folder/root_folder.h"
#include "support/temp_dir.h"

using android::hardware::bluetooth::conf::Config;

namespace {

test::TempDir* root;

__attribute__((constructor(101))) void SetRootFolder() {
  root = new test::TempDir;
  setenv("BTHAL_ROOT", root->path().c_str(), 1);
  atexit([] { delete root; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(data, data + size);
  test::WriteFile(*root / "vendor/etc/bluetooth/bt_vendor.conf", text);
  const pid_t child = fork();
  if (child == 0) {
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    const Config& config = *Config::GetInstance();
    // Any type but 1 empties the port.
    _exit(config.userial_type() == 1 || config.uart_port().empty() ? 0 : 1);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0) abort();
  return 0;
}
