// Handsets side by side on one machine, each a service with a controller and a client of its own:
// 1, 4 and 16 of them get events, 457 a second each, and the processor time of a handset is
// compared with that of one alone. The counts take turns; each figure is the median of its rounds.
// No real-time priority. usage: handsets_bench [--json] [SECONDS]    SECONDS: of events each (5)
#include <array>
#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "daemon_relay.h"
#include "measure.h"
#include "program.h"
#include "serial_controller.h"
#include "tests/support/temp_dir.h"
#include "usage.h"

namespace {

using bench::Distribution;
using bench::Row;
using Clock = std::chrono::steady_clock;

constexpr int kRounds = 5;
constexpr std::array<size_t, 3> kCounts = {1, 4, 16};
constexpr double kEventsPerSecond = 457;  // of each: all together a serial line of 300 kB/s

// This process looks for services below one root folder only: a link, which points at each
// handset's folder in turn while this process attaches to its service.
class Handset {
 public:
  Handset(const std::string& folder, const std::string& link)
      : root_(MadeFolder(folder)), daemon_(Start()) {
    std::filesystem::remove(link);
    std::filesystem::create_directory_symlink(folder, link);
    relay_ = std::make_unique<bench::DaemonRelay>(daemon_, &sink_);
  }

  void SendEvent() { controller_.SendEvent(bench::Sink::TimestampedEvent()); }
  bench::Sink& sink() { return sink_; }
  pid_t pid() const { return daemon_.pid(); }

 private:
  static std::string MadeFolder(const std::string& folder) {
    std::filesystem::create_directories(folder);
    return folder;
  }
  bench::Daemon Start() {
    root_.UseSerialLine(controller_.tty());
    return {root_, bench::Scheduling::kOrdinary};
  }

  bench::HandsetRoot root_;
  bench::SerialController controller_;
  bench::Sink sink_;
  bench::Daemon daemon_;
  std::unique_ptr<bench::DaemonRelay> relay_;
};

struct Run {
  size_t lost = 0;
  double cpu_share = 0;  // of one handset
  Distribution delay;
};

// Of the first count handsets; the others rest.
Run Measure(const std::vector<std::unique_ptr<Handset>>& handsets, size_t count, int seconds) {
  std::vector<pid_t> pids;
  for (size_t i = 0; i < count; ++i) pids.push_back(handsets[i]->pid());
  const auto each = static_cast<size_t>(seconds * kEventsPerSecond);
  const std::chrono::duration<double> interval(1 / kEventsPerSecond / static_cast<double>(count));
  const double cpu_before = bench::CpuSeconds(pids);
  const auto begin = Clock::now();
  for (size_t i = 0; i < each * count; ++i) {
    std::this_thread::sleep_until(begin + static_cast<double>(i) * interval);
    handsets[i % count]->SendEvent();
  }
  std::vector<double> delays;
  for (size_t i = 0; i < count; ++i) {
    handsets[i]->sink().WaitForEvents(each);
    const std::vector<double> own = handsets[i]->sink().TakeDelaysUs();
    delays.insert(delays.end(), own.begin(), own.end());
  }
  Run run;
  run.lost = each * count - delays.size();
  run.cpu_share = (bench::CpuSeconds(pids) - cpu_before) /
                  std::chrono::duration<double>(Clock::now() - begin).count() /
                  static_cast<double>(count);
  run.delay = Distribution(std::move(delays));
  return run;
}

Run Combine(const std::vector<Run>& runs) {
  Run all;
  std::vector<double> shares;
  std::vector<Distribution> delays;
  for (const Run& run : runs) {
    all.lost += run.lost;
    shares.push_back(run.cpu_share);
    delays.push_back(run.delay);
  }
  all.cpu_share = bench::MedianOf(std::move(shares));
  all.delay = Distribution::MedianOf(delays);
  return all;
}

void MeasureAll(int seconds) {
  const test::TempDir folder;
  bench::BeClientOn(folder / "current");
  std::vector<std::unique_ptr<Handset>> handsets;
  for (size_t i = 0; i < kCounts.back(); ++i) {
    handsets.push_back(std::make_unique<Handset>(folder / std::to_string(i), folder / "current"));
  }
  std::array<std::vector<Run>, kCounts.size()> runs;
  for (int round = 0; round < kRounds; ++round) {
    for (size_t i = 0; i < kCounts.size(); ++i) {
      runs[i].push_back(Measure(handsets, kCounts[i], std::max(1, seconds / kRounds)));
    }
  }
  const double alone = Combine(runs[0]).cpu_share;
  for (size_t i = 0; i < kCounts.size(); ++i) {
    const Run run = Combine(runs[i]);
    Row("handsets", std::to_string(kCounts[i]))
        .Add("lost", run.lost)
        .Add("cpu_share_of_each", run.cpu_share, 4)
        .Add("cpu_ratio_to_one_alone", run.cpu_share / alone, 2)
        .Add("delay", run.delay)
        .Print();
  }
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunProgram("handsets_bench", argc, argv, 5, MeasureAll);
}
