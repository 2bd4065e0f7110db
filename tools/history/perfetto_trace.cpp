#include <utility>

#include "perfetto.pb.h"
#include "tools/history/timeline.h"
#include "tools/history/tracks.h"

namespace bthalctl {
namespace {

using perfetto::TrackEvent;

class TraceWriter {
 public:
  explicit TraceWriter(const History& history) {
    perfetto::TrackDescriptor& process = *Packet().mutable_track_descriptor();
    process.set_uuid(kProcess);
    process.set_name(history.source);
    process.mutable_process()->set_pid(1);
    process.mutable_process()->set_process_name("bthal " + history.source);
  }

  void Add(const Track& track) {
    const uint64_t uuid = NewTrack(track.name).uuid();
    for (const TrackSlice& slice : track.slices) {
      const bool instant = slice.end_ns == slice.begin_ns;
      TrackEvent& event = Event(uuid, slice.begin_ns,
                                instant ? TrackEvent::TYPE_INSTANT : TrackEvent::TYPE_SLICE_BEGIN);
      event.set_name(slice.name);
      event.add_categories("bthal");
      for (const auto& [name, value] : slice.details) {
        perfetto::DebugAnnotation& annotation = *event.add_debug_annotations();
        annotation.set_name(name);
        annotation.set_string_value(value);
      }
      if (!instant) Event(uuid, slice.end_ns, TrackEvent::TYPE_SLICE_END);
    }
  }

  void Add(const std::string& name, const HistoryCounter& counter) {
    perfetto::TrackDescriptor& track = NewTrack(name);
    track.mutable_counter()->set_unit_name(counter.unit);
    const uint64_t uuid = track.uuid();
    for (const HistorySample& sample : counter.samples) {
      Event(uuid, sample.time_ns, TrackEvent::TYPE_COUNTER).set_counter_value(sample.value);
    }
  }

  std::string Done() const { return trace_.SerializeAsString(); }

 private:
  static constexpr uint64_t kProcess = 1;

  perfetto::TracePacket& Packet() {
    perfetto::TracePacket& packet = *trace_.add_packet();
    packet.set_trusted_packet_sequence_id(1);
    return packet;
  }
  perfetto::TrackDescriptor& NewTrack(const std::string& name) {
    perfetto::TrackDescriptor& track = *Packet().mutable_track_descriptor();
    track.set_uuid(++last_track_);
    track.set_parent_uuid(kProcess);
    track.set_name(name);
    return track;
  }
  TrackEvent& Event(uint64_t track, int64_t time_ns, TrackEvent::Type type) {
    perfetto::TracePacket& packet = Packet();
    packet.set_timestamp(static_cast<uint64_t>(time_ns));
    TrackEvent& event = *packet.mutable_track_event();
    event.set_track_uuid(track);
    event.set_type(type);
    return event;
  }

  perfetto::Trace trace_;
  uint64_t last_track_ = kProcess;
};

}  // namespace

std::string PerfettoTrace(const History& history) {
  TraceWriter writer(history);
  for (const Track& track : TracksOf(history)) writer.Add(track);
  for (const auto& [name, counter] : history.counters) writer.Add(name, counter);
  return writer.Done();
}

}  // namespace bthalctl
