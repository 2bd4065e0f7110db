#include "tools/history/history.h"

#include <nlohmann/json.hpp>

namespace bthalctl {
namespace {

using Json = nlohmann::json;

// Whole microseconds are what captures have.
double Seconds(int64_t time_ns) {
  const int64_t time_us = time_ns / 1000;
  return static_cast<double>(time_us) / 1e6;
}

template <typename Value>
Json OrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json(nullptr);
}

}  // namespace

const char* MarkKindName(HistoryMark::Kind kind) {
  switch (kind) {
    case HistoryMark::Kind::kNote:
      return "note";
    case HistoryMark::Kind::kWarning:
      return "warning";
    case HistoryMark::Kind::kError:
      return "error";
    case HistoryMark::Kind::kReport:
      return "report";
    case HistoryMark::Kind::kLoss:
      return "loss";
  }
  return "";
}

Json ToJson(const History& history) {
  const auto at = [&](int64_t time_ns) { return Seconds(time_ns - history.begin_ns); };
  Json json = {{"source", history.source},
               {"begin", Seconds(history.begin_ns)},
               {"seconds", at(history.end_ns)}};
  Json& steps = json["steps"] = Json::array();
  for (const HistoryStep& step : history.steps) {
    steps.push_back({{"name", step.name},
                     {"detail", step.detail},
                     {"begin", at(step.begin_ns)},
                     {"end", at(step.end_ns)},
                     {"failed", step.failed},
                     {"running", step.running}});
  }
  Json& commands = json["commands"] = Json::array();
  for (const HistoryCommand& command : history.commands) {
    commands.push_back({{"opcode", command.opcode},
                        {"name", command.name},
                        {"extension", command.extension},
                        {"begin", at(command.begin_ns)},
                        {"end", command.end_ns ? Json(at(*command.end_ns)) : Json(nullptr)},
                        {"status", OrNull(command.status)}});
  }
  Json& packets = json["packets"] = Json::array();
  for (const HistoryPacket& packet : history.packets) {
    packets.push_back({{"time", at(packet.time_ns)},
                       {"from_controller", packet.from_controller},
                       {"name", packet.name},
                       {"extension", packet.extension},
                       {"bytes", packet.size},
                       {"handle", OrNull(packet.handle)}});
  }
  Json& states = json["states"] = Json::array();
  for (const HistoryState& state : history.states) {
    states.push_back({{"name", state.name},
                      {"value", state.value},
                      {"begin", at(state.begin_ns)},
                      {"end", at(state.end_ns)}});
  }
  Json& counters = json["counters"] = Json::object();
  for (const auto& [name, counter] : history.counters) {
    Json& samples = counters[name]["samples"] = Json::array();
    counters[name]["unit"] = counter.unit;
    for (const HistorySample& sample : counter.samples) {
      samples.push_back({at(sample.time_ns), sample.value});
    }
  }
  Json& marks = json["marks"] = Json::array();
  for (const HistoryMark& mark : history.marks) {
    marks.push_back({{"kind", MarkKindName(mark.kind)},
                     {"time", at(mark.time_ns)},
                     {"text", mark.text},
                     {"meaning", mark.meaning}});
  }
  return json;
}

}  // namespace bthalctl
