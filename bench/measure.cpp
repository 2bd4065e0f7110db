#include "measure.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "usage.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kBytesPerSecond = 300e3;
constexpr size_t kEventBytesOnLine = 1 + Sink::kEventBytes;
constexpr int kRoundTrips = 1000;

void MeasureEvents(int seconds, Controller* controller, const Relay& relay, Sink* sink,
                   Figures* figures) {
  const double interval_ns = kEventBytesOnLine / kBytesPerSecond * 1e9;
  figures->sent = static_cast<size_t>(seconds * 1e9 / interval_ns);
  const double cpu_before = CpuSeconds(relay.pids());
  const auto begin = Clock::now();
  for (size_t i = 0; i < figures->sent; ++i) {
    std::this_thread::sleep_until(begin + std::chrono::nanoseconds(static_cast<int64_t>(
                                              static_cast<double>(i) * interval_ns)));
    controller->SendEvent(Sink::TimestampedEvent());
  }
  sink->WaitForEvents(figures->sent);
  const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
  figures->cpu_share = (CpuSeconds(relay.pids()) - cpu_before) / elapsed;
  std::vector<double> delays = sink->TakeDelaysUs();
  figures->arrived = delays.size();
  figures->delay = Distribution(std::move(delays));
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
  figures->round_trip = Distribution(std::move(trips));
}

}  // namespace

void AwaitPath(Relay* relay, Sink* sink) {
  const size_t answers = sink->answers();
  relay->SendCommand();
  if (!sink->WaitForAnswers(answers + 1)) throw std::runtime_error("a command was not answered");
}

Figures Measure(int seconds, Controller* controller, Relay* relay, Sink* sink) {
  AwaitPath(relay, sink);
  Figures figures;
  MeasureEvents(seconds, controller, *relay, sink, &figures);
  MeasureRoundTrips(relay, sink, &figures);
  return figures;
}

Figures Combine(const std::vector<Figures>& runs) {
  Figures all;
  std::vector<double> shares;
  std::vector<Distribution> delays, round_trips;
  for (const Figures& run : runs) {
    all.sent += run.sent;
    all.arrived += run.arrived;
    all.round_trips += run.round_trips;
    shares.push_back(run.cpu_share);
    delays.push_back(run.delay);
    round_trips.push_back(run.round_trip);
  }
  all.cpu_share = MedianOf(shares);
  all.delay = Distribution::MedianOf(delays);
  all.round_trip = Distribution::MedianOf(round_trips);
  return all;
}

void AddFigures(const Figures& f, Row* row) {
  row->Add("sent", f.sent).Add("lost", f.sent - f.arrived).Add("cpu_share", f.cpu_share, 4);
  row->Add("delay", f.delay).Add("round_trips", f.round_trips).Add("round_trip", f.round_trip);
}

void AddRatios(const Figures& f, const Figures& base, Row* row) {
  const auto ratio = [&](Distribution Figures::*times, double percent) {
    return (f.*times).At(percent) / (base.*times).At(percent);
  };
  row->Add("cpu_share", f.cpu_share / base.cpu_share, 2)
      .Add("delay_p50", ratio(&Figures::delay, 50), 2)
      .Add("delay_p99", ratio(&Figures::delay, 99), 2)
      .Add("round_trip_p50", ratio(&Figures::round_trip, 50), 2)
      .Add("round_trip_p99", ratio(&Figures::round_trip, 99), 2);
}

}  // namespace bench
