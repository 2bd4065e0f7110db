#include "tools/history/tracks.h"

#include <algorithm>

#include "tools/hci/names.h"

namespace bthalctl {
namespace {

// The rows of one name.
class Rows {
 public:
  Rows(std::string name, std::vector<Track>* tracks) : name_(std::move(name)), tracks_(tracks) {}

  // In the order of beginnings: into the first row that is free by then.
  void Add(TrackSlice slice) {
    const auto free = std::find_if(rows_.begin(), rows_.end(),
                                   [&](const Row& row) { return row.until_ns <= slice.begin_ns; });
    Row* row = free == rows_.end() ? nullptr : &*free;
    if (row == nullptr) {
      row = &rows_.emplace_back();
      row->track.name = rows_.size() == 1 ? name_ : name_ + " " + std::to_string(rows_.size());
    }
    row->until_ns = slice.end_ns;
    row->track.slices.push_back(std::move(slice));
  }
  ~Rows() {
    for (Row& row : rows_) tracks_->push_back(std::move(row.track));
  }
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

 private:
  struct Row {
    Track track;
    int64_t until_ns = INT64_MIN;
  };
  const std::string name_;
  std::vector<Track>* const tracks_;
  std::vector<Row> rows_;
};

TrackSlice SliceOf(const HistoryStep& step) {
  TrackSlice slice{step.begin_ns, step.end_ns, step.name, {}};
  if (!step.detail.empty()) slice.details.emplace_back("found", step.detail);
  if (step.failed) slice.details.emplace_back("failed", "yes");
  if (step.running) slice.details.emplace_back("ended", "not before the log did");
  return slice;
}

TrackSlice SliceOf(const HistoryCommand& command) {
  TrackSlice slice{command.begin_ns, command.end_ns.value_or(command.begin_ns), command.name, {}};
  if (command.status) slice.details.emplace_back("status", StatusText(*command.status));
  if (!command.end_ns) slice.details.emplace_back("status", "not answered");
  return slice;
}

TrackSlice SliceOf(const HistoryPacket& packet) {
  TrackSlice slice{packet.time_ns, packet.time_ns, packet.name, {}};
  slice.details.emplace_back("bytes", std::to_string(packet.size));
  if (packet.handle) slice.details.emplace_back("handle", std::to_string(*packet.handle));
  return slice;
}

}  // namespace

std::vector<Track> TracksOf(const History& history) {
  std::vector<Track> tracks;
  {
    Rows steps("bring-up", &tracks);
    for (const HistoryStep& step : history.steps) steps.Add(SliceOf(step));
  }
  {
    Rows commands("commands", &tracks);
    for (const HistoryCommand& command : history.commands) {
      if (command.extension.empty()) commands.Add(SliceOf(command));
    }
  }
  for (const bool from_controller : {false, true}) {
    Track packets{from_controller ? "from the controller" : "to the controller", {}};
    for (const HistoryPacket& packet : history.packets) {
      if (packet.from_controller == from_controller) packets.slices.push_back(SliceOf(packet));
    }
    tracks.push_back(std::move(packets));
  }
  std::map<std::string, Track> states;
  for (const HistoryState& state : history.states) {
    states[state.name].slices.push_back({state.begin_ns, state.end_ns, state.value, {}});
  }
  for (auto& [name, track] : states) {
    track.name = name;
    tracks.push_back(std::move(track));
  }
  std::map<std::string, std::vector<TrackSlice>> by_extension;
  for (const HistoryCommand& command : history.commands) {
    if (command.extension.empty()) continue;
    by_extension[command.extension].push_back(SliceOf(command));
  }
  for (const HistoryPacket& packet : history.packets) {
    // What answers a command, or is one, is in its slice.
    if (packet.extension.empty() || !packet.is_report) continue;
    by_extension[packet.extension].push_back(SliceOf(packet));
  }
  for (auto& [name, slices] : by_extension) {
    std::stable_sort(slices.begin(), slices.end(),
                     [](const auto& a, const auto& b) { return a.begin_ns < b.begin_ns; });
    Rows rows(name, &tracks);
    for (TrackSlice& slice : slices) rows.Add(std::move(slice));
  }
  Track told{"told", {}};
  for (const HistoryMark& mark : history.marks) {
    TrackSlice slice{mark.time_ns, mark.time_ns, mark.text, {{"kind", MarkKindName(mark.kind)}}};
    if (!mark.meaning.empty()) slice.details.emplace_back("meaning", mark.meaning);
    told.slices.push_back(std::move(slice));
  }
  tracks.push_back(std::move(told));
  return tracks;
}

}  // namespace bthalctl
