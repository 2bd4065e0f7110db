#include "measure.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kBytesPerSecond = 300e3;
constexpr size_t kEventBytesOnLine = 1 + Sink::kEventBytes;
constexpr int kRoundTrips = 1000;

double Percentile(std::vector<double>* values, double share) {
  if (values->empty()) return -1;
  const auto at = static_cast<size_t>(share * static_cast<double>(values->size() - 1));
  std::nth_element(values->begin(), values->begin() + static_cast<long>(at), values->end());
  return (*values)[at];
}

// Processor time of all threads of a process so far.
double CpuSeconds(pid_t pid) {
  double nanoseconds = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    double run = 0;
    std::ifstream(task.path() / "schedstat") >> run;
    nanoseconds += run;
  }
  return nanoseconds * 1e-9;
}

void MeasureEvents(int seconds, Controller* controller, const Relay& relay, Sink* sink,
                   Figures* figures) {
  const double interval_ns = kEventBytesOnLine / kBytesPerSecond * 1e9;
  figures->sent = static_cast<size_t>(seconds * 1e9 / interval_ns);
  const double cpu_before = CpuSeconds(relay.process().pid());
  const auto begin = Clock::now();
  for (size_t i = 0; i < figures->sent; ++i) {
    std::this_thread::sleep_until(begin + std::chrono::nanoseconds(static_cast<int64_t>(
                                              static_cast<double>(i) * interval_ns)));
    controller->SendEvent(Sink::TimestampedEvent());
  }
  sink->WaitForEvents(figures->sent);
  const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
  figures->cpu_share = (CpuSeconds(relay.process().pid()) - cpu_before) / elapsed;
  std::vector<double> delays = sink->TakeDelaysUs();
  figures->arrived = delays.size();
  figures->delay_p50 = Percentile(&delays, 0.5);
  figures->delay_p99 = Percentile(&delays, 0.99);
}

void MeasureRoundTrips(Relay* relay, Sink* sink, Figures* figures) {
  std::vector<double> trips;
  for (int i = 0; i < kRoundTrips; ++i) {
    const size_t answers = sink->answers();
    const int64_t sent = NowNs();
    relay->SendCommand();
    if (!sink->WaitForAnswers(answers + 1)) break;
    trips.push_back(static_cast<double>(NowNs() - sent) * 1e-3);
  }
  figures->round_trips = trips.size();
  figures->round_trip_p50 = Percentile(&trips, 0.5);
  figures->round_trip_p99 = Percentile(&trips, 0.99);
}

}  // namespace

Figures Measure(int seconds, Controller* controller, Relay* relay, Sink* sink) {
  Figures figures;
  MeasureEvents(seconds, controller, *relay, sink, &figures);
  MeasureRoundTrips(relay, sink, &figures);
  return figures;
}

Figures Combine(const std::vector<Figures>& runs) {
  Figures all;
  for (const Figures& run : runs) {
    all.sent += run.sent;
    all.arrived += run.arrived;
    all.round_trips += run.round_trips;
  }
  for (double Figures::*const figure :
       {&Figures::cpu_share, &Figures::delay_p50, &Figures::delay_p99, &Figures::round_trip_p50,
        &Figures::round_trip_p99}) {
    std::vector<double> values;
    values.reserve(runs.size());
    for (const Figures& run : runs) values.push_back(run.*figure);
    all.*figure = Percentile(&values, 0.5);
  }
  return all;
}

void PrintRow(const std::string& relay, const Figures& f) {
  printf(
      "relay=%s events=%zu/%zu%s cpu_share=%.4f delay_p50_us=%.1f delay_p99_us=%.1f "
      "round_trips=%zu round_trip_p50_us=%.1f round_trip_p99_us=%.1f\n",
      relay.c_str(), f.arrived, f.sent, f.arrived < f.sent ? " LOST" : "", f.cpu_share, f.delay_p50,
      f.delay_p99, f.round_trips, f.round_trip_p50, f.round_trip_p99);
  fflush(stdout);
}

void PrintRatio(const std::string& relay, const Figures& f, const std::string& to,
                const Figures& base) {
  printf(
      "ratio=%s/%s cpu_share=%.2f delay_p50=%.2f delay_p99=%.2f round_trip_p50=%.2f "
      "round_trip_p99=%.2f\n",
      relay.c_str(), to.c_str(), f.cpu_share / base.cpu_share, f.delay_p50 / base.delay_p50,
      f.delay_p99 / base.delay_p99, f.round_trip_p50 / base.round_trip_p50,
      f.round_trip_p99 / base.round_trip_p99);
  fflush(stdout);
}

}  // namespace bench
