#include <nlohmann/json.hpp>

#include "tools/history/timeline.h"
#include "tools/history/tracks.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

constexpr int kProcess = 1;

// Microseconds since the beginning.
double Time(const History& history, int64_t time_ns) {
  return static_cast<double>(time_ns - history.begin_ns) / 1e3;
}

Json Named(const char* what, int thread, const std::string& name) {
  return {
      {"ph", "M"}, {"name", what}, {"pid", kProcess}, {"tid", thread}, {"args", {{"name", name}}}};
}

}  // namespace

std::string ChromeTrace(const History& history) {
  Json events = Json::array({Named("process_name", 0, "bthal " + history.source)});
  int row = 0;
  for (const Track& track : TracksOf(history)) {
    events.push_back(Named("thread_name", ++row, track.name));
    for (const TrackSlice& slice : track.slices) {
      Json event = {{"name", slice.name},
                    {"cat", "bthal"},
                    {"pid", kProcess},
                    {"tid", row},
                    {"ts", Time(history, slice.begin_ns)}};
      for (const auto& [name, value] : slice.details) event["args"][name] = value;
      if (slice.end_ns == slice.begin_ns) {
        event["ph"] = "i";
        event["s"] = "t";  // of this row only
      } else {
        event["ph"] = "X";
        event["dur"] = static_cast<double>(slice.end_ns - slice.begin_ns) / 1e3;
      }
      events.push_back(std::move(event));
    }
  }
  for (const auto& [name, counter] : history.counters) {
    for (const HistorySample& sample : counter.samples) {
      events.push_back({{"ph", "C"},
                        {"name", name},
                        {"pid", kProcess},
                        {"ts", Time(history, sample.time_ns)},
                        {"args", {{counter.unit, sample.value}}}});
    }
  }
  return Json({{"traceEvents", std::move(events)}, {"displayTimeUnit", "ms"}})
      .dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace bthalctl
