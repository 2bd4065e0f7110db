// What a service with Bluetooth on takes of a machine while nothing happens, with and without a
// power-statistics provider, and its memory: when fresh, after data both ways, and after a flood of
// calls that had to wait. usage: footprint_bench [--json] [SECONDS]    SECONDS: of rest each (5)
#include <hardware/nuvexa/bluetooth/ext/1.0/IBluetoothExt.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bulk.h"
#include "daemon_relay.h"
#include "program.h"
#include "serial_controller.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"
#include "usage.h"

namespace {

using android::hardware::hidl_vec;
using android::hardware::bluetooth::V1_1::IBluetoothHci;
using bench::Row;
using hardware::nuvexa::bluetooth::ext::V1_0::IBluetoothExt;
using std::chrono::seconds;

constexpr char kFlood[] = "flood";  // the argument of a process that takes part in it
constexpr int kFloodProcesses = 8;
constexpr int kFloodThreads = 64;
constexpr size_t kFloodCallBytes = 65000;

void PrintIdle(const std::string& provider, pid_t pid, int rest) {
  std::this_thread::sleep_for(seconds(3));  // longer than any timer behind a packet
  const double sleeps = bench::Sleeps(pid), cpu = bench::CpuSeconds({pid});
  std::this_thread::sleep_for(seconds(rest));
  Row("idle", provider)
      .Add("wake_ups_per_s", (bench::Sleeps(pid) - sleeps) / rest, 2)
      .Add("cpu_ms_per_s", (bench::CpuSeconds({pid}) - cpu) * 1e3 / rest, 3)
      .Print();
}

void PrintMemory(const std::string& when, pid_t pid) {
  Row("memory", when)
      .Add("resident_kb", bench::Kilobytes(pid, "VmRSS"), 0)
      .Add("private_kb", bench::Kilobytes(pid, "RssAnon"), 0)
      .Add("peak_resident_kb", bench::Kilobytes(pid, "VmHWM"), 0)
      .Print();
}

// Large packets from many threads, each of which waits for its answer: they are dropped, as their
// length is wrong.
void Flood() {
  const auto hal = IBluetoothHci::getService("default");
  if (hal == nullptr) throw std::runtime_error("the daemon is not found");
  std::vector<std::thread> threads;
  for (int i = 0; i < kFloodThreads; ++i) {
    threads.emplace_back(
        [&] { (void)hal->sendAclData(hidl_vec<uint8_t>(kFloodCallBytes)).isOk(); });
  }
  for (std::thread& thread : threads) thread.join();
}

// While the service's one thread for calls waits for the controller.
void FloodFromProcesses() {
  const auto injector = IBluetoothExt::getService("default");
  if (injector == nullptr) throw std::runtime_error("the extension is not found");
  std::thread busy([&] {
    (void)injector->setBluetoothCmdPacket(bench::SerialController::kSilentOpcode, {}).isOk();
  });
  std::vector<std::unique_ptr<test::ChildProcess>> processes;
  for (int i = 0; i < kFloodProcesses; ++i) {
    processes.push_back(std::make_unique<test::ChildProcess>(
        std::vector<std::string>{"/proc/" + std::to_string(getpid()) + "/exe", kFlood}));
  }
  busy.join();
  for (auto& process : processes) {
    const auto end = process->Wait(test::kDeadline);
    if (!end || end->exit_code != 0) throw std::runtime_error("the flood: " + process->Output());
  }
}

void MeasureAll(int rest) {
  const test::TempDir folder;
  const bench::HandsetRoot root(folder.path());
  bench::BeClientOn(root.path());
  bench::SerialController controller;
  root.UseSerialLine(controller.tty());
  bench::Sink sink;
  const bench::Daemon daemon(root, bench::Scheduling::kOrdinary);
  bench::DaemonRelay relay(daemon, &sink);

  PrintIdle("no provider", daemon.pid(), rest);
  PrintMemory("fresh", daemon.pid());
  {
    test::ChildProcess provider({test::ProgramDir() + "/zvkpowerstats"});
    if (!provider.WaitForOutput("registered Bluetooth", test::kDeadline)) {
      throw std::runtime_error("the service does not register\n" + provider.Output());
    }
    PrintIdle("provider", daemon.pid(), rest);
  }
  double moved = 0;
  for (const double bytes : {1e7, 1e8}) {
    while (moved < bytes) {
      const auto slice = std::chrono::milliseconds(100);
      moved += static_cast<double>(bench::MoveBulk(slice, &controller, &relay, &sink).bytes);
    }
    PrintMemory(bytes == 1e7 ? "after 10^7 bytes" : "after 10^8 bytes", daemon.pid());
  }
  FloodFromProcesses();
  PrintMemory("after a flood", daemon.pid());
  std::this_thread::sleep_for(seconds(3));
  PrintMemory("3 s after a flood", daemon.pid());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], kFlood) == 0) {
    Flood();
    return 0;
  }
  return bench::RunProgram("footprint_bench", argc, argv, 5, MeasureAll);
}
