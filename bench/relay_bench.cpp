// The daemon as a relay, over a serial line and over a co-processor's messages, and beside each
// socat relaying the same kind of file to a socket of that kind: events at a paced 300 kB/s
// (processor share, delay), and round trips of a command and its event. The relays take turns, so
// that whatever else the machine does hits all of them; each figure is the median of its rounds.
// One row a relay, then the ratios of rows. Needs socat. usage: relay_bench [SECONDS]    SECONDS:
// of paced events a relay (10)
#include <hwbinder/ProcessState.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "co_processor_controller.h"
#include "daemon_relay.h"
#include "measure.h"
#include "serial_controller.h"
#include "socat_relay.h"
#include "tests/support/temp_dir.h"

namespace {

using bench::Figures;
using bench::SocatRelay;

constexpr int kRounds = 5;

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

void PrepareRoot(const test::TempDir& root) {
  test::WriteFile(root / "proc/device-tree/chosen/config/bt_addr", "00:11:22:33:44:55\n");
  test::WriteFile(root / "vendor/firmware/tovu/ZVK.hcd",
                  std::string("\x4e\xfc\x04\xff\xff\xff\xff", 7));
  std::filesystem::create_directories(root / "dev");
  mkfifo((root / "dev/wbrc").c_str(), 0600);
}

// What each relay did, a round an entry.
struct Rounds {
  std::vector<Figures> socat, daemon;
};

void MeasureSerialLine(const test::TempDir& root, int seconds, Rounds* rounds) {
  bench::SerialController controller;
  rounds->socat.push_back(MeasureSocat(root, seconds, &controller, controller.tty() + ",raw,echo=0",
                                       SocatRelay::Carries::kH4));
  const std::string port = root / "dev/ttyS0";
  std::filesystem::remove(port);
  std::filesystem::create_symlink(controller.tty(), port);
  test::WriteFile(root / "vendor/etc/bluetooth/bt_vendor.conf", "UartPort = /dev/ttyS0\n");
  rounds->daemon.push_back(MeasureDaemon(root, seconds, &controller));
}

void MeasureCoProcessor(const test::TempDir& root, int seconds, Rounds* rounds) {
  bench::CoProcessorController controller(root.path());
  rounds->socat.push_back(MeasureSocat(root, seconds, &controller,
                                       "UNIX-CONNECT:" + (root / "run/qvr/transport") + ",type=5",
                                       SocatRelay::Carries::kMessages));
  test::WriteFile(root / "vendor/etc/bluetooth/bt_vendor.conf", "UserialType = 2\n");
  rounds->daemon.push_back(MeasureDaemon(root, seconds, &controller));
}

void MeasureAll(int seconds) {
  const test::TempDir root;
  setenv("BTHAL_ROOT", root.path().c_str(), 1);
  android::hardware::ProcessState::self()->startThreadPool();
  PrepareRoot(root);
  Rounds line, messages;
  for (int round = 0; round < kRounds; ++round) {
    MeasureSerialLine(root, std::max(1, seconds / kRounds), &line);
    MeasureCoProcessor(root, std::max(1, seconds / kRounds), &messages);
  }
  const Figures line_socat = Combine(line.socat);
  const Figures line_daemon = Combine(line.daemon);
  const Figures messages_socat = Combine(messages.socat);
  const Figures messages_daemon = Combine(messages.daemon);
  PrintRow("socat", line_socat);
  PrintRow("bthal", line_daemon);
  PrintRow("socat-messages", messages_socat);
  PrintRow("bthal-co-processor", messages_daemon);
  PrintRatio("bthal", line_daemon, "socat", line_socat);
  PrintRatio("bthal-co-processor", messages_daemon, "socat-messages", messages_socat);
  PrintRatio("bthal-co-processor", messages_daemon, "bthal", line_daemon);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    MeasureAll(argc > 1 ? atoi(argv[1]) : 10);
  } catch (const std::exception& error) {
    fprintf(stderr, "relay_bench: %s\n", error.what());
    return 1;
  }
}
