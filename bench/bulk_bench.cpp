// ACL data of 1021 bytes a packet both ways at once, as fast as a relay takes them: the daemon, and
// socat relaying the same pty. Rows, turns and scheduling as in relay_bench.
// usage: bulk_bench [--json] [SECONDS]    SECONDS: a relay (5)
#include <chrono>
#include <map>
#include <vector>

#include "bulk.h"
#include "daemon_relay.h"
#include "program.h"
#include "scheduling.h"
#include "serial_controller.h"
#include "socat_relay.h"
#include "tests/support/temp_dir.h"

namespace {

using bench::BulkFigures;
using bench::HandsetRoot;
using bench::Row;
using bench::Scheduling;

constexpr int kRounds = 5;

struct Rounds {
  std::vector<BulkFigures> socat, daemon;
};

void MeasureRound(const HandsetRoot& root, Scheduling kind, std::chrono::milliseconds time,
                  Rounds* rounds) {
  bench::SerialController controller;
  root.UseSerialLine(controller.tty());
  {
    bench::Sink sink;
    auto socat = bench::SocatRelay::OfSerialLine(root, controller, kind, &sink);
    rounds->socat.push_back(bench::MoveBulk(time, &controller, &socat, &sink));
  }
  bench::Sink sink;
  const bench::Daemon daemon(root, kind);
  bench::DaemonRelay relay(daemon, &sink);
  rounds->daemon.push_back(bench::MoveBulk(time, &controller, &relay, &sink));
}

BulkFigures Combine(const std::vector<BulkFigures>& runs) {
  BulkFigures all;
  for (const BulkFigures& run : runs) all.lost_bytes += run.lost_bytes;
  for (double BulkFigures::*const figure :
       {&BulkFigures::to_host_mb_per_s, &BulkFigures::to_controller_mb_per_s,
        &BulkFigures::cpu_ms_per_mb}) {
    std::vector<double> values;
    for (const BulkFigures& run : runs) values.push_back(run.*figure);
    all.*figure = bench::MedianOf(std::move(values));
  }
  return all;
}

void PrintRow(const std::string& relay, Scheduling kind, const BulkFigures& f) {
  Row("bulk", relay)
      .Add("scheduling", Name(kind))
      .Add("lost_bytes", f.lost_bytes)
      .Add("to_host_mb_per_s", f.to_host_mb_per_s, 2)
      .Add("to_controller_mb_per_s", f.to_controller_mb_per_s, 2)
      .Add("cpu_ms_per_mb", f.cpu_ms_per_mb, 1)
      .Print();
}

void MeasureAll(int seconds) {
  const test::TempDir folder;
  const HandsetRoot root(folder.path());
  bench::BeClientOn(root.path());
  std::map<Scheduling, Rounds> all;
  const std::vector<Scheduling> kinds = bench::PossibleKinds();
  for (int round = 0; round < kRounds; ++round) {
    for (const Scheduling kind : kinds) {
      MeasureRound(root, kind, std::chrono::milliseconds(1000 * seconds / kRounds), &all[kind]);
    }
  }
  for (const Scheduling kind : kinds) {
    const BulkFigures socat = Combine(all[kind].socat), daemon = Combine(all[kind].daemon);
    PrintRow("socat", kind, socat);
    PrintRow("bthal", kind, daemon);
    Row("bulk-ratio", "bthal/socat")
        .Add("scheduling", Name(kind))
        .Add("to_host_mb_per_s", daemon.to_host_mb_per_s / socat.to_host_mb_per_s, 2)
        .Add("to_controller_mb_per_s", daemon.to_controller_mb_per_s / socat.to_controller_mb_per_s,
             2)
        .Add("cpu_ms_per_mb", daemon.cpu_ms_per_mb / socat.cpu_ms_per_mb, 2)
        .Print();
  }
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunProgram("bulk_bench", argc, argv, 5, MeasureAll);
}
