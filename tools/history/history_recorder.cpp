#include "tools/history/history_recorder.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <algorithm>
#include <utility>

#include "tools/hci/names.h"
#include "tools/hci/packet.h"
#include "tools/link/exchange.h"
#include "tools/log/bring_up_steps.h"
#include "tools/log/user_data.h"

namespace bthalctl {
namespace {

constexpr int64_t kNsPerMs = 1'000'000;
constexpr int64_t kRateNs = 100 * kNsPerMs;  // over which bytes a second are counted

// The services that a command belongs to.
struct ExtensionCommand {
  uint16_t opcode;
  const char* extension;
};
constexpr ExtensionCommand kExtensionCommands[] = {
    {0x0C3F, "channel avoidance"}, {0xFE69, "transmit power"}, {0xFD63, "link-layer events"},
    {0xFE20, "EWP logging"},       {0xFD59, "activity"},       {0xFD5E, "quality reports"},
    {0xFD5B, "debug dump"}};

struct ExtensionEvent {
  uint8_t subevent;  // of the vendor event
  const char* extension;
};
constexpr ExtensionEvent kExtensionEvents[] = {
    {wire::vendor_event::kLinkLayer, "link-layer events"},
    {wire::vendor_event::kQualityReport, "quality reports"},
    {wire::vendor_event::kDebugInfo, "debug dump"}};

const char* ExtensionOf(uint16_t opcode) {
  for (const ExtensionCommand& row : kExtensionCommands) {
    if (row.opcode == opcode) return row.extension;
  }
  return "";
}

const char* ExtensionOfVendorEvent(uint8_t subevent) {
  for (const ExtensionEvent& row : kExtensionEvents) {
    if (row.subevent == subevent) return row.extension;
  }
  return "";
}

bool IsEwpHandle(uint16_t handle) { return handle >= 0xD00 && handle <= 0xEFF; }

// Notes of the service: between a kept bring-up and this line nothing is known.
constexpr char kCaptureBegins[] = "a capture begins";
// Before a state, as "NAME=VALUE".
constexpr char kState[] = "state ";

std::string DataName(PacketType type) {
  return type == PacketType::kAcl ? "ACL data" : type == PacketType::kSco ? "SCO data" : "ISO data";
}

int64_t ToNs(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

// Where in a log the last bring-up that has begun by then begins.
size_t LastBringUp(const std::vector<LogLine>& log, int64_t by_ns) {
  size_t begin = 0, before = 0;
  for (size_t i = 0; i < log.size() && ToNs(log[i].time) <= by_ns + kNsPerMs; ++i) {
    if (BringUpSteps::IsStart(log[i])) before = std::exchange(begin, i);
    // A reset of a controller that is up: the bring-up is the one before.
    if (DetailOf(log[i], "bthal.zvkproto", "AcceleratedReset", nullptr)) begin = before;
  }
  return begin;
}

}  // namespace

int64_t LastBringUpNs(const std::vector<LogLine>& log) {
  const size_t begin = LastBringUp(log, INT64_MAX - kNsPerMs);
  return begin < log.size() ? ToNs(log[begin].time) : 0;
}

void HistoryRecorder::AddCaptured(const wire::Captured& captured) {
  if (history_.begin_ns == 0) history_.begin_ns = captured.time_ns;
  if (captured.lost > 0) {
    history_.marks.push_back({HistoryMark::Kind::kLoss, captured.time_ns,
                              std::to_string(captured.lost) + " packets are missing here", ""});
  }
  if (captured.packet) {
    AddPacket(*captured.packet, captured.from_controller, captured.time_ns);
  } else {
    AddNote(captured.note, captured.time_ns);
  }
  last_ns_ = captured.time_ns;
}

void HistoryRecorder::AddPacket(const wire::Packet& packet, bool from_controller, int64_t time_ns) {
  if (packets_begin_ns_ == 0) packets_begin_ns_ = time_ns;
  HistoryPacket& row = history_.packets.emplace_back();
  row.time_ns = time_ns;
  row.from_controller = from_controller;
  row.size = packet.bytes.size() + 1;
  bytes_[from_controller ? 1 : 0][(time_ns - packets_begin_ns_) / kRateNs] +=
      static_cast<int64_t>(row.size);
  switch (packet.type) {
    case PacketType::kCommand:
      OnCommand(packet, time_ns);
      break;
    case PacketType::kEvent:
      OnEvent(packet, time_ns);
      break;
    default:
      row.name = DataName(packet.type);
      row.handle = HandleOf(packet);
      if (packet.type == PacketType::kAcl && IsEwpHandle(*row.handle)) {
        row.extension = "EWP logging";
        row.is_report = true;
      } else if (!from_controller) {
        Sample("data packets in the controller", "packets", time_ns, ++in_controller_);
      }
  }
}

void HistoryRecorder::OnCommand(const wire::Packet& command, int64_t time_ns) {
  HistoryCommand row;
  row.opcode = wire::ByteView(command.bytes).U16(0);
  row.name = OpcodeText(row.opcode);
  row.extension = ExtensionOf(row.opcode);
  row.begin_ns = time_ns;
  history_.packets.back().name = row.name;
  history_.packets.back().extension = row.extension;
  unanswered_.push_back(history_.commands.size());
  history_.commands.push_back(std::move(row));
}

void HistoryRecorder::OnEvent(const wire::Packet& packet, int64_t time_ns) {
  HistoryPacket& row = history_.packets.back();
  const wire::ByteView bytes(packet.bytes);
  const uint8_t code = bytes[0];
  if (const std::optional<CommandAnswer> answer = AnswerIn(packet)) {
    row.name = EventName(code) + " of " + OpcodeText(answer->opcode);
    row.extension = ExtensionOf(answer->opcode);
    OnAnswer(*answer, bytes, time_ns);
    return;
  }
  if (code == event::kVendor) {
    row.name = VendorEventName(bytes[2]);
    row.extension = ExtensionOfVendorEvent(bytes[2]);
  } else if (code == event::kLeMeta) {
    row.name = LeEventName(bytes[2]);
  } else {
    row.name = EventName(code);
  }
  if (code == event::kNumberOfCompletedPackets) {
    for (size_t i = 0; i < bytes[2]; ++i) in_controller_ -= bytes.U16(5 + 4 * i);
    in_controller_ = std::max<int64_t>(in_controller_, 0);
    Sample("data packets in the controller", "packets", time_ns, in_controller_);
  }
  row.is_report = true;
  if (!row.extension.empty() || code == event::kHardwareError) {
    history_.marks.push_back({HistoryMark::Kind::kReport, time_ns, row.name, ""});
  }
}

void HistoryRecorder::OnAnswer(const CommandAnswer& answer, wire::ByteView event, int64_t time_ns) {
  const uint8_t credits = event[0] == event::kCommandComplete ? event[2] : event[3];
  Sample("command credits", "commands", time_ns, credits);
  const auto command = std::find_if(unanswered_.begin(), unanswered_.end(), [&](size_t i) {
    return history_.commands[i].opcode == answer.opcode;
  });
  if (command == unanswered_.end()) return;
  HistoryCommand& row = history_.commands[*command];
  row.end_ns = time_ns;
  // A Command Complete without return parameters has no status.
  if (!answer.complete || !answer.parameters.empty()) row.status = answer.status;
  unanswered_.erase(command);
}

void HistoryRecorder::AddNote(const std::string& note, int64_t time_ns) {
  if (note == kCaptureBegins) EndStates(last_ns_);
  if (::android::base::StartsWith(note, kState)) {
    const std::string state = note.substr(sizeof kState - 1);
    const size_t sign = state.find('=');
    if (sign != std::string::npos) SetState(state.substr(0, sign), state.substr(sign + 1), time_ns);
  }
}

void HistoryRecorder::SetState(const std::string& name, const std::string& value, int64_t time_ns) {
  int64_t number = 0;
  if (::android::base::ParseInt(value, &number)) {
    const char* const unit = name == "line_baud" ? "bit/s" : "commands";
    return Sample(name, unit, time_ns, number);
  }
  HistoryState& open = open_[name];
  if (open.value == value) return;
  if (!open.name.empty()) {
    open.end_ns = time_ns;
    history_.states.push_back(open);
  }
  open = {name, value, time_ns, time_ns};
}

void HistoryRecorder::Sample(const std::string& counter, const char* unit, int64_t time_ns,
                             int64_t value) {
  HistoryCounter& row = history_.counters[counter];
  row.unit = unit;
  if (row.samples.empty() || row.samples.back().value != value) {
    row.samples.push_back({time_ns, value});
  }
}

void HistoryRecorder::AddSteps(const std::map<std::string, std::string>& state) {
  for (size_t number = 1;; ++number) {
    const auto step = state.find("step." + std::to_string(number));
    if (step == state.end()) return;
    AddStep(std::istringstream(step->second));
  }
}

// "BEGIN TOOK RESULT NAME: DETAIL"
void HistoryRecorder::AddStep(std::istringstream fields) {
  int64_t begin_ns = 0, took_ns = 0;
  std::string result, name, detail;
  if (!(fields >> begin_ns >> took_ns >> result) || begin_ns <= 0 || took_ns < 0) return;
  std::getline(fields >> std::ws, name);
  const bool mark = result == "mark";
  if (const size_t colon = name.find(": "); colon != std::string::npos && !mark) {
    detail = name.substr(colon + 2);
    name.resize(colon);
  }
  told_ = true;
  if (history_.begin_ns == 0 || begin_ns < history_.begin_ns) history_.begin_ns = begin_ns;
  if (mark) {
    history_.marks.push_back({HistoryMark::Kind::kNote, begin_ns, name, ""});
    return;
  }
  const bool running = result == "running";
  history_.steps.push_back(
      {name, detail, begin_ns, begin_ns + took_ns, result == "failed", running});
}

void HistoryRecorder::AddLog(const std::vector<LogLine>& log) {
  const int64_t first_ns = history_.begin_ns == 0 ? INT64_MAX - kNsPerMs : history_.begin_ns;
  const size_t begin = LastBringUp(log, first_ns);
  if (begin >= log.size()) return;
  const int64_t start_ns = ToNs(log[begin].time);
  history_.begin_ns = std::min(history_.begin_ns == 0 ? start_ns : history_.begin_ns, start_ns);
  BringUpSteps steps;
  const auto wanted = [this](Progress::Kind kind) {
    return !told_ || kind == Progress::Kind::kTrouble;
  };
  for (size_t i = begin; i < log.size(); ++i) {
    if (HoldsUserData(log[i])) continue;
    for (const Progress& progress : steps.Feed(log[i])) {
      if (wanted(progress.kind)) AddProgress(progress, start_ns);
    }
  }
  if (const std::optional<Progress> running = steps.Running(log.back().time);
      running && wanted(running->kind)) {
    const int64_t at_ns = start_ns + running->at.count() * kNsPerMs;
    history_.steps.push_back({running->name, running->detail, at_ns, at_ns, false, true});
  }
}

void HistoryRecorder::AddProgress(const Progress& progress, int64_t start_ns) {
  const int64_t at_ns = start_ns + progress.at.count() * kNsPerMs;
  switch (progress.kind) {
    case Progress::Kind::kBegin:
      break;  // its end tells all
    case Progress::Kind::kEnd:
    case Progress::Kind::kFailed:
      history_.steps.push_back({progress.name, progress.detail, at_ns,
                                at_ns + progress.took.count() * kNsPerMs,
                                progress.kind == Progress::Kind::kFailed, false});
      break;
    case Progress::Kind::kMark:
      history_.marks.push_back({HistoryMark::Kind::kNote, at_ns, progress.name, ""});
      break;
    case Progress::Kind::kTrouble:
      history_.marks.push_back(
          {progress.name[0] == 'W' ? HistoryMark::Kind::kWarning : HistoryMark::Kind::kError, at_ns,
           WithoutAddresses(progress.name.substr(2)), progress.detail});
      break;
  }
}

void HistoryRecorder::EndStates(int64_t end_ns) {
  for (auto& [name, state] : open_) {
    state.end_ns = std::max(state.begin_ns, end_ns);
    history_.states.push_back(state);
  }
  open_.clear();
}

History HistoryRecorder::Finish(int64_t end_ns) {
  history_.end_ns = end_ns;
  EndStates(end_ns);
  for (HistoryStep& step : history_.steps) {
    if (step.running) step.end_ns = std::max(step.begin_ns, end_ns);
  }
  for (const size_t direction : {size_t{0}, size_t{1}}) {
    const char* const name =
        direction == 0 ? "bytes a second to the controller" : "bytes a second from the controller";
    int64_t last = -1;
    const auto sample = [&](int64_t tenth, int64_t bytes) {
      Sample(name, "bytes/s", packets_begin_ns_ + tenth * kRateNs, bytes * 10);
    };
    for (const auto& [tenth, bytes] : bytes_[direction]) {
      if (last >= 0 && tenth > last + 1) sample(last + 1, 0);
      sample(tenth, bytes);
      last = tenth;
    }
    if (last >= 0) sample(last + 1, 0);
  }
  const auto by_begin = [](const auto& a, const auto& b) { return a.begin_ns < b.begin_ns; };
  const auto by_time = [](const auto& a, const auto& b) { return a.time_ns < b.time_ns; };
  std::stable_sort(history_.states.begin(), history_.states.end(), by_begin);
  std::stable_sort(history_.steps.begin(), history_.steps.end(), by_begin);
  std::stable_sort(history_.marks.begin(), history_.marks.end(), by_time);
  return std::move(history_);
}

}  // namespace bthalctl
