// Events and round trips through the service, from the serial line to its client, with 0, 8 and 64
// watchers besides the service's own, none of which takes them. Traffic and turns as in
// relay_bench, without real-time priority.
// usage: watchers_bench [--json] [SECONDS]    SECONDS: of paced events each (5)
#include <array>
#include <stdexcept>
#include <vector>

#include "daemon_relay.h"
#include "measure.h"
#include "program.h"
#include "serial_controller.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

using bench::Figures;
using bench::Row;

constexpr int kRounds = 5;
constexpr std::array<int, 3> kCounts = {0, 8, 64};

Figures MeasureWith(int watchers, const bench::HandsetRoot& root, int seconds) {
  bench::SerialController controller;
  root.UseSerialLine(controller.tty());
  bench::Sink sink;
  bench::Daemon service(
      root, bench::Scheduling::kOrdinary,
      {test::ProgramDir() + "/../bench/watched_service", std::to_string(watchers)});
  bench::DaemonRelay relay(service, &sink);
  if (!service.process().WaitForOutput("watching", test::kDeadline)) {
    throw std::runtime_error("the watchers are not registered");
  }
  return Measure(seconds, &controller, &relay, &sink);
}

void MeasureAll(int seconds) {
  const test::TempDir folder;
  const bench::HandsetRoot root(folder.path());
  bench::BeClientOn(root.path());
  std::array<std::vector<Figures>, kCounts.size()> runs;
  for (int round = 0; round < kRounds; ++round) {
    for (size_t i = 0; i < kCounts.size(); ++i) {
      runs[i].push_back(MeasureWith(kCounts[i], root, std::max(1, seconds / kRounds)));
    }
  }
  const Figures without = bench::Combine(runs[0]);
  for (size_t i = 0; i < kCounts.size(); ++i) {
    const Figures figures = bench::Combine(runs[i]);
    const std::string name = std::to_string(kCounts[i]);
    Row row("watchers", name);
    AddFigures(figures, &row);
    row.Print();
    if (i == 0) continue;
    Row ratio("watchers-ratio", name + "/0");
    AddRatios(figures, without, &ratio);
    ratio.Print();
  }
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunProgram("watchers_bench", argc, argv, 5, MeasureAll);
}
