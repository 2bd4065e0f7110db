// The daemon as a relay, over a serial line and over a co-processor's messages, and beside each
// socat relaying the same kind of file to a socket of that kind: events at a paced 300 kB/s
// (processor share, delay), and round trips of a command and its event. Each pair twice: neither
// program may have real-time priority; both have it. The relays take turns, so that whatever else
// the machine does hits all of them; each figure is the median of its rounds. One row a relay, then
// the ratios of rows. Needs socat. usage: relay_bench [SECONDS]    SECONDS: of paced events a relay
// (10)
#include <hwbinder/ProcessState.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <vector>

#include "co_processor_controller.h"
#include "daemon_relay.h"
#include "measure.h"
#include "scheduling.h"
#include "serial_controller.h"
#include "socat_relay.h"
#include "tests/support/temp_dir.h"

namespace {

using bench::Figures;
using bench::Scheduling;
using bench::SocatRelay;

constexpr int kRounds = 5;

// How long to measure, and of whom.
struct Conditions {
  int seconds;
  Scheduling scheduling;
};

Figures MeasureDaemon(const test::TempDir& root, Conditions conditions,
                      bench::Controller* controller) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  std::filesystem::remove_all(root / "run/bthal");
  bench::Sink sink;
  bench::DaemonRelay daemon(self + "/../bin/android.hardware.bluetooth@1.1-service.zvkbtlinux",
                            conditions.scheduling, &sink);
  return Measure(conditions.seconds, controller, &daemon, &sink);
}

Figures MeasureSocat(const test::TempDir& root, Conditions conditions,
                     bench::Controller* controller, const std::string& address,
                     SocatRelay::Carries carries) {
  bench::Sink sink;
  SocatRelay socat(address, carries, root.path(), conditions.scheduling, &sink);
  return Measure(conditions.seconds, controller, &socat, &sink);
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

void MeasureSerialLine(const test::TempDir& root, Conditions conditions, Rounds* rounds) {
  bench::SerialController controller;
  rounds->socat.push_back(MeasureSocat(root, conditions, &controller,
                                       controller.tty() + ",raw,echo=0", SocatRelay::Carries::kH4));
  const std::string port = root / "dev/ttyS0";
  std::filesystem::remove(port);
  std::filesystem::create_symlink(controller.tty(), port);
  test::WriteFile(root / "vendor/etc/bluetooth/bt_vendor.conf", "UartPort = /dev/ttyS0\n");
  rounds->daemon.push_back(MeasureDaemon(root, conditions, &controller));
}

void MeasureCoProcessor(const test::TempDir& root, Conditions conditions, Rounds* rounds) {
  bench::CoProcessorController controller(root.path());
  rounds->socat.push_back(MeasureSocat(root, conditions, &controller,
                                       "UNIX-CONNECT:" + (root / "run/qvr/transport") + ",type=5",
                                       SocatRelay::Carries::kMessages));
  test::WriteFile(root / "vendor/etc/bluetooth/bt_vendor.conf", "UserialType = 2\n");
  rounds->daemon.push_back(MeasureDaemon(root, conditions, &controller));
}

void Compare(const std::string& name, const Figures& figures, const std::string& base_name,
             const Figures& base) {
  PrintRow(base_name, base);
  PrintRow(name, figures);
  PrintRatio(name, figures, base_name, base);
}

void MeasureAll(int seconds) {
  const test::TempDir root;
  setenv("BTHAL_ROOT", root.path().c_str(), 1);
  android::hardware::ProcessState::self()->startThreadPool();
  PrepareRoot(root);
  std::map<Scheduling, std::pair<Rounds, Rounds>> all;
  std::vector<Scheduling> kinds = {Scheduling::kOrdinary};
  if (bench::MayBeRealTime()) {
    kinds.push_back(Scheduling::kRealTime);
  } else {
    printf("no rows with real-time priority: this user may not have it\n");
  }
  for (int round = 0; round < kRounds; ++round) {
    for (const Scheduling kind : kinds) {
      const Conditions conditions{std::max(1, seconds / kRounds), kind};
      MeasureSerialLine(root, conditions, &all[kind].first);
      MeasureCoProcessor(root, conditions, &all[kind].second);
    }
  }
  for (const Scheduling kind : kinds) {
    const std::string suffix = kind == Scheduling::kRealTime ? ",real-time" : "";
    const auto& [line, messages] = all[kind];
    Compare("bthal" + suffix, Combine(line.daemon), "socat" + suffix, Combine(line.socat));
    Compare("bthal-co-processor" + suffix, Combine(messages.daemon), "socat-messages" + suffix,
            Combine(messages.socat));
  }
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
