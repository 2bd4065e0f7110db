// The daemon as a relay, over a serial line and over a co-processor's messages, and beside each
// socat relaying the same kind of file to a socket of that kind: events at a paced 300 kB/s
// (processor share, delay), and round trips of a command and its event. One row a relay, then the
// ratios of rows. Needs socat.
// usage: relay_bench [SECONDS]
#include <hwbinder/ProcessState.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

#include "co_processor_controller.h"
#include "daemon_relay.h"
#include "measure.h"
#include "serial_controller.h"
#include "socat_relay.h"
#include "tests/support/temp_dir.h"

namespace {

using bench::Figures;
using bench::SocatRelay;

Figures MeasureDaemon(const test::TempDir& root, int seconds, bench::Controller* controller) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  std::filesystem::remove_all(root / "run/bthal");
  bench::Sink sink;
  bench::DaemonRelay daemon(self + "/../bin/android.hardware.bluetooth@1.1-service.zvkbtlinux",
                            &sink);
  return Measure(seconds, controller, &daemon, &sink);
}

Figures MeasureSocat(const test::TempDir& root, int seconds, bench::Controller* controller,
                     const std::string& address, SocatRelay::Carries carries) {
  bench::Sink sink;
  SocatRelay socat(address, carries, root.path(), &sink);
  return Measure(seconds, controller, &socat, &sink);
}

void MeasureAll(const test::TempDir& root, int seconds) {
  test::WriteFile(root / "proc/device-tree/chosen/config/bt_addr", "00:11:22:33:44:55\n");
  test::WriteFile(root / "vendor/firmware/tovu/ZVK.hcd",
                  std::string("\x4e\xfc\x04\xff\xff\xff\xff", 7));
  std::filesystem::create_directories(root / "dev");
  mkfifo((root / "dev/wbrc").c_str(), 0600);

  Figures line, line_socat, messages, messages_socat;
  {
    bench::SerialController controller;
    line_socat = MeasureSocat(root, seconds, &controller, controller.tty() + ",raw,echo=0",
                              SocatRelay::Carries::kH4);
    PrintRow("socat", line_socat);
  }
  {
    bench::SerialController controller;
    std::filesystem::create_symlink(controller.tty(), root / "dev/ttyS0");
    test::WriteFile(root / "vendor/etc/bluetooth/bt_vendor.conf", "UartPort = /dev/ttyS0\n");
    line = MeasureDaemon(root, seconds, &controller);
    PrintRow("bthal", line);
  }
  bench::CoProcessorController controller(root.path());
  messages_socat = MeasureSocat(root, seconds, &controller,
                                "UNIX-CONNECT:" + root.path() + "/run/qvr/transport,type=5",
                                SocatRelay::Carries::kMessages);
  PrintRow("socat-messages", messages_socat);
  test::WriteFile(root / "vendor/etc/bluetooth/bt_vendor.conf", "UserialType = 2\n");
  messages = MeasureDaemon(root, seconds, &controller);
  PrintRow("bthal-co-processor", messages);

  PrintRatio("bthal", line, "socat", line_socat);
  PrintRatio("bthal-co-processor", messages, "socat-messages", messages_socat);
  PrintRatio("bthal-co-processor", messages, "bthal", line);
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::max(1, atoi(argv[1])) : 10;
  try {
    const test::TempDir root(test::TempDir::Where::kInMemory);
    setenv("BTHAL_ROOT", root.path().c_str(), 1);
    android::hardware::ProcessState::self()->startThreadPool();
    MeasureAll(root, seconds);
  } catch (const std::exception& error) {
    fprintf(stderr, "relay_bench: %s\n", error.what());
    return 1;
  }
}
