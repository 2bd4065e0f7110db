// The daemon as a relay, over a serial line and over a co-processor's messages, and beside each
// socat relaying the same kind of file to a socket of that kind: events at a paced 300 kB/s
// (processor share, delay), and round trips of a command and its event. Over the serial line also
// the chain of daemon and H4 port, for host stacks of another kind. Each twice: no program may have
// real-time priority; all have it. The relays take turns, so that whatever else the machine does
// hits all of them; each figure is the median of its rounds. One row a relay, then its ratios to
// socat. Needs socat. usage: relay_bench [--json] [SECONDS]    SECONDS: of paced events a relay
// (10)
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "chain_relay.h"
#include "co_processor_controller.h"
#include "daemon_relay.h"
#include "measure.h"
#include "program.h"
#include "scheduling.h"
#include "serial_controller.h"
#include "socat_relay.h"
#include "tests/support/temp_dir.h"

namespace {

using bench::Figures;
using bench::HandsetRoot;
using bench::Row;
using bench::Scheduling;

constexpr int kRounds = 5;

// What each relay did under one kind of scheduling, a round an entry.
struct Rounds {
  std::vector<Figures> socat, daemon, chain, socat_messages, co_processor;
};

void MeasureSerialLine(const HandsetRoot& root, Scheduling kind, int seconds, Rounds* rounds) {
  bench::SerialController controller;
  root.UseSerialLine(controller.tty());
  {
    bench::Sink sink;
    auto socat = bench::SocatRelay::OfSerialLine(root, controller, kind, &sink);
    rounds->socat.push_back(Measure(seconds, &controller, &socat, &sink));
  }
  {
    bench::Sink sink;
    const bench::Daemon daemon(root, kind);
    bench::DaemonRelay relay(daemon, &sink);
    rounds->daemon.push_back(Measure(seconds, &controller, &relay, &sink));
  }
  bench::Sink sink;
  bench::ChainRelay chain(root, kind, &sink);
  rounds->chain.push_back(Measure(seconds, &controller, &chain, &sink));
}

void MeasureCoProcessor(const HandsetRoot& root, Scheduling kind, int seconds, Rounds* rounds) {
  bench::CoProcessorController controller(root.path());
  root.UseCoProcessor();
  {
    bench::Sink sink;
    auto socat = bench::SocatRelay::OfMessages(root, kind, &sink);
    rounds->socat_messages.push_back(Measure(seconds, &controller, &socat, &sink));
  }
  bench::Sink sink;
  const bench::Daemon daemon(root, kind);
  bench::DaemonRelay relay(daemon, &sink);
  rounds->co_processor.push_back(Measure(seconds, &controller, &relay, &sink));
}

void PrintRow(const std::string& relay, Scheduling kind, const Figures& figures) {
  Row row("relay", relay);
  row.Add("scheduling", Name(kind));
  AddFigures(figures, &row);
  row.Print();
}

void PrintRatio(const std::string& relay, const std::string& base_name, Scheduling kind,
                const Figures& figures, const Figures& base) {
  Row row("ratio", relay + "/" + base_name);
  row.Add("scheduling", Name(kind));
  AddRatios(figures, base, &row);
  row.Print();
}

void Print(Scheduling kind, const Rounds& rounds) {
  const auto print = [kind](const std::string& relay, const std::vector<Figures>& runs,
                            const std::string& base, const std::vector<Figures>& base_runs) {
    PrintRow(relay, kind, bench::Combine(runs));
    PrintRatio(relay, base, kind, bench::Combine(runs), bench::Combine(base_runs));
  };
  PrintRow("socat", kind, bench::Combine(rounds.socat));
  print("bthal", rounds.daemon, "socat", rounds.socat);
  print("bthal-serve-h4", rounds.chain, "socat", rounds.socat);
  PrintRow("socat-messages", kind, bench::Combine(rounds.socat_messages));
  print("bthal-co-processor", rounds.co_processor, "socat-messages", rounds.socat_messages);
}

void MeasureAll(int seconds) {
  const test::TempDir folder;
  const HandsetRoot root(folder.path());
  bench::BeClientOn(root.path());
  std::map<Scheduling, Rounds> all;
  const std::vector<Scheduling> kinds = bench::PossibleKinds();
  for (int round = 0; round < kRounds; ++round) {
    for (const Scheduling kind : kinds) {
      const int share = std::max(1, seconds / kRounds);
      MeasureSerialLine(root, kind, share, &all[kind]);
      MeasureCoProcessor(root, kind, share, &all[kind]);
    }
  }
  for (const Scheduling kind : kinds) Print(kind, all[kind]);
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunProgram("relay_bench", argc, argv, 10, MeasureAll);
}
