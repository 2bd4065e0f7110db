#include "sim/handset/handset.h"

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <utility>

#include "sim/base/log.h"
#include "sim/wire.h"

namespace zvk {
namespace {

constexpr auto kWarmUp = std::chrono::milliseconds(200);
constexpr auto kStatusPeriod = std::chrono::milliseconds(20);
// The controller's line while the co-processor has its other end.
constexpr char kCoProcessorLine[] = "run/zvksim/line";
constexpr size_t kCoProcessorDumpBytes = 4096;
constexpr size_t kLineBacklog = 1048576;  // bytes that wait for the host; more are dropped

// The address of a controller to which the host has not written one.
constexpr Address kRomAddress = {0x00, 0x00, 0xF0, 0x4B, 0x56, 0x5A};

}  // namespace

Handset::Handset(EventLoop& loop, const HandsetOptions& options)
    : loop_(loop),
      preset_(*options.chip),
      vendor_version_(options.vendor_version),
      random_(options.root.seed),
      root_(options.root, *options.chip),
      trace_(options.trace_file),
      warm_up_(kWarmUp),
      framer_(
          H4Framer::From::kHost,
          [this](PacketType type, ByteView packet) { OnHostPacket(type, packet); },
          [this](uint8_t bad) { OnLostSync(bad); }),
      uart_(
          loop, random_, LineOptions(options), [this] { DrainFiles(); },
          [this](ByteView bytes) { OnHostBytes(bytes); }),
      line_(loop, uart_),
      rfkill_(loop, root_ / "sys/class/rfkill/rfkill0/state",
              [this](bool on, bool more) { OnPower(on, more); }),
      lpm_(loop, root_ / "proc/bluetooth/sleep/lpm",
           [this](bool on, bool /*more*/) {
             if (on) uart_.Drain();  // what was written before still finds it awake
             lpm_enabled_ = on;
             trace_.Note(on ? "low-power driver on" : "low-power driver off");
           }),
      btwrite_(loop, root_ / "proc/bluetooth/sleep/btwrite",
               [this](bool on, bool /*more*/) { OnWake(on); }),
      wake_locks_(loop, root_ / "sys/power/wake_lock", root_ / "sys/power/wake_unlock",
                  [this](const std::string& name, bool held) {
                    trace_.Note("wake lock " + name + (held ? " held" : " released"));
                  }),
      coex_(loop, root_ / "dev/wbrc", [this](const std::string& text) { trace_.Note(text); }),
      time_sync_(root_ / "proc/bluetooth/timesync"),
      scenario_(loop, options.scenario,
                [this](const Action& action) { action.type->act(*this, action.arguments); }) {
  if (options.root.co_processor) {
    co_processor_ = std::make_unique<CoProcessor>(loop_, root_ / "run/qvr/transport",
                                                  root_ / kCoProcessorLine, CoProcessorBoard());
  }
  if (!options.replay.file.empty()) {
    replay_ = std::make_unique<Replay>(
        loop_, options.replay,
        [this](PacketType type, ByteView packet) { DeliverToHost(type, packet); });
  } else {
    control_ = std::make_unique<ControlSocket>(
        loop_, root_ / kControlPath, [this](const std::string& text) { return TakeStep(text); });
  }
  if (!options.radio.empty()) {
    radio_ = std::make_unique<RadioBridge>(
        loop_, options.radio,
        [this](PacketType type, ByteView packet) { SendToHost(type, packet); });
  }
  loop_.SetIdle([this] { OnIdle(); });
  WriteStatus();
}

Handset::~Handset() {
  loop_.SetIdle(nullptr);
  loop_.Cancel(&status_timer_);
  loop_.Cancel(&warm_up_timer_);
}

Uart::Options Handset::LineOptions(const HandsetOptions& options) {
  Uart::Options line{root_ / "dev/ttySAC16", options.chunk, options.pace, nullptr};
  if (options.root.co_processor) {
    line.link = root_ / kCoProcessorLine;
    line.host_speed = [this] { return co_processor_ ? co_processor_->line_speed() : 0; };
  }
  // A capture does not tell the speeds.
  if (!options.replay.file.empty()) line.host_speed = [this] { return uart_.speed(); };
  return line;
}

CoProcessor::Board Handset::CoProcessorBoard() {
  CoProcessor::Board board;
  board.before_request = [this] { DrainFiles(); };
  board.on_request = [this](CoRequest request) { return scenario_.OnRequest(request); };
  board.dump = [this] {
    if (controller_) controller_->debug().ChreDump(kCoProcessorDumpBytes);
  };
  board.note = [this](const std::string& text) { trace_.Note(text); };
  return board;
}

std::string Handset::TakeStep(const std::string& text) {
  DrainFiles();
  try {
    scenario_.Add(ParseStep(text, ActionTypes()));
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  trace_.Note("told: " + text);
  return "";
}

void Handset::DrainFiles() {
  rfkill_.Drain();
  lpm_.Drain();
  btwrite_.Drain();
}

bool Handset::SleepMode() const { return controller_ && controller_->chip().sleep_mode; }

bool Handset::Awake() const { return !SleepMode() || !lpm_enabled_ || wake_asserted_; }

void Handset::OnPower(bool on, bool more) {
  if (!on) {
    // Of a power cycle that is seen as a whole, what is there may have been written after it.
    if (!more) uart_.Drain();
    if (powered_) trace_.Note("power off");
    powered_ = false;
    StopController();
    if (replay_) replay_->PowerOff();
    if (radio_) radio_->Disconnect();
    line_.Clear();
    uart_.Clear();
    return;
  }
  if (powered_) return;
  ++counts_.power_cycles;
  const Bytes reset = uart_.DropBacklog();
  PowerOn();
  scenario_.OnPowerOn();
  OnHostBytes(reset);
}

void Handset::PowerOn() {
  trace_.Note("power on");
  powered_ = true;
  if (radio_) radio_->Connect();
  StartController(Chip(!preset_.needs_patch, "ZVK ROM " + preset_.name));
}

ChipState Handset::Chip(bool patched, const std::string& local_name) const {
  ChipState chip;
  chip.preset = &preset_;
  chip.vendor_version = vendor_version_;
  chip.patched = patched;
  chip.local_name = local_name;
  chip.address = kRomAddress;
  return chip;
}

void Handset::OnWake(bool asserted) {
  if (!asserted) uart_.Drain();
  wake_asserted_ = asserted;
  trace_.Note(asserted ? "wake asserted" : "wake released");
}

void Handset::StartController(const ChipState& chip) {
  framer_.Reset();
  uart_.SetSpeed(kBootSpeed);
  ++counts_.starts;
  listening_ = true;
  if (replay_) {
    replay_->PowerOn();
    return;
  }
  BoardPort board;
  board.send = [this](PacketType type, ByteView packet) { SendToHost(type, packet); };
  if (radio_) {
    board.radio = [this](PacketType type, ByteView packet) { radio_->Send(type, packet); };
  }
  board.set_speed = [this](uint32_t speed) { SetSpeed(speed); };
  board.launch = [this](const std::string& name) {
    uart_.AfterSent([this, name] { LaunchFirmware(name); });
  };
  board.toggle_time_sync = [this] {
    const EventLoop::Time now = EventLoop::Clock::now();
    time_sync_.Record(static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count()));
    return now;
  };
  controller_ = std::make_unique<Controller>(loop_, random_, board, chip);
}

void Handset::SetSpeed(uint32_t speed) {
  uart_.AfterSent([this, speed] {
    uart_.SetSpeed(speed);
    trace_.Note("controller at " + std::to_string(speed) + " baud");
  });
}

void Handset::StopController() {
  controller_.reset();
  framer_.Reset();
  loop_.Cancel(&warm_up_timer_);
  listening_ = false;
}

void Handset::LaunchFirmware(const std::string& name) {
  trace_.Note("firmware \"" + name + "\" starts");
  StopController();
  StartController(Chip(true, name));
  listening_ = false;
  warm_up_timer_ = loop_.After(warm_up_, [this] {
    warm_up_timer_ = EventLoop::kNoTimer;
    listening_ = true;
    trace_.Note("firmware ready");
  });
}

void Handset::OnHostBytes(ByteView bytes) {
  if (!listening_) return;
  if (!Awake()) {
    if (counts_.bytes_lost_asleep == 0) Log("bytes for a controller that sleeps are lost");
    counts_.bytes_lost_asleep += bytes.size();
    return;
  }
  framer_.Push(bytes);
  if (controller_) controller_->EndOfInput();
}

void Handset::OnHostPacket(PacketType type, ByteView packet) {
  ++counts_.packets_from_host;
  trace_.FromHost(type, packet);
  if (replay_) {
    replay_->OnHostPacket(type, packet);
    return;
  }
  if (type != PacketType::kCommand) {
    controller_->OnPacket(type, packet);
    return;
  }
  const uint16_t opcode = packet.U16(0);
  ++counts_.commands[opcode];
  const uint64_t starts = counts_.starts;
  const CommandFault fault = scenario_.OnCommand(opcode);
  if (fault.no_answer || starts != counts_.starts) return;
  if (fault.late == ScenarioTime::zero()) {
    RunCommand(packet, fault.change);
    return;
  }
  loop_.After(fault.late, [this, starts, late = packet.Copy(), change = fault.change] {
    if (controller_ && starts == counts_.starts) RunCommand(late, change);
  });
}

void Handset::RunCommand(ByteView packet, const AnswerChange& change) {
  const uint16_t opcode = packet.U16(0);
  controller_->OnCommand(packet, change);
  scenario_.OnAnswered(opcode);
}

void Handset::HangUp() {
  trace_.Note("hang-up");
  uart_.HangUp();
}

void Handset::Hang(EventLoop::Duration time) {
  trace_.Note("hang");
  line_.BeSilent(time);
  uart_.StopReading(time);
}

// The supply voltage dips: the controller starts anew, and the host does not notice.
void Handset::BrownOut() {
  trace_.Note("brown-out");
  StopController();
  if (radio_) radio_->Disconnect();
  line_.Clear();
  uart_.Clear();
  PowerOn();
}

void Handset::OnLostSync(uint8_t bad) {
  ++counts_.sync_losses;
  trace_.Note("no packet begins with byte " + std::to_string(bad));
  replay_ ? replay_->OnLostSync(bad) : controller_->OnLostSync(bad);
}

void Handset::SendToHost(PacketType type, ByteView packet) {
  if (uart_.queued() + packet.size() > kLineBacklog) {
    if (counts_.packets_dropped++ == 0) Log("the host does not read; packets are dropped");
    return;
  }
  DeliverToHost(type, packet);
}

void Handset::DeliverToHost(PacketType type, ByteView packet) {
  if (!line_.Send(type, packet)) return;
  ++counts_.packets_to_host;
  trace_.ToHost(type, packet);
}

void Handset::OnIdle() {
  uart_.Flush();
  trace_.Flush();
  if (status_timer_ == EventLoop::kNoTimer) WriteStatus();
}

std::string Handset::StatusText() {
  const bool on = controller_ != nullptr;
  // One "name": value per line, so that grep does as well as a JSON reader.
  nlohmann::ordered_json json = {
      {"powered", powered_},
      {"power_cycles", counts_.power_cycles},
      {"starts", counts_.starts},
      {"patched", on && controller_->chip().patched},
      {"listening", listening_},
      {"speed_baud", powered_ ? uart_.speed() : 0},
      {"sleep_mode", SleepMode()},
      {"lpm_enabled", lpm_enabled_},
      {"awake", Awake()},
      {"address", on ? AddressText(controller_->chip().CurrentAddress()) : ""},
      {"channel_map", on ? Hex(controller_->radio_limits().channel_map()) : ""},
      {"sar_format", on ? controller_->radio_limits().cap_format() : 0},
      {"sar_caps", on ? Hex(controller_->radio_limits().caps()) : ""},
      {"ewp_interval", on ? controller_->ewp().interval() : 0},
      {"ccc", nlohmann::ordered_json::object()},
  };
  if (on) {
    for (const auto& [address, events] : controller_->ccc().registered()) {
      json["ccc"][AddressText(address)] = Hex(Bytes(events.begin(), events.end()));
    }
  }
  if (co_processor_) {
    const CoProcessor::State state = co_processor_->state();
    json["co_processor"] = {{"connected", state.connected},  {"connections", state.connections},
                            {"on", state.powered},           {"low_power", state.low_power},
                            {"line_baud", state.speed_baud}, {"requests", state.requests}};
  }
  json.update({
      {"bytes_from_host", uart_.received()},
      {"bytes_to_host", uart_.sent()},
      {"bytes_lost_asleep", counts_.bytes_lost_asleep},
      {"packets_from_host", counts_.packets_from_host},
      {"packets_to_host", counts_.packets_to_host},
      {"packets_dropped", counts_.packets_dropped},
      {"sync_losses", counts_.sync_losses},
      {"coex_acknowledged", coex_.acknowledged()},
  });
  nlohmann::ordered_json& locks = json["wake_locks"] = nlohmann::ordered_json::object();
  for (const auto& [name, account] : wake_locks_.accounts()) {
    locks[name] = {
        {"held", account.held}, {"acquired", account.acquired}, {"released", account.released}};
  }
  nlohmann::ordered_json& commands = json["commands"] = nlohmann::ordered_json::object();
  for (const auto& [opcode, count] : counts_.commands) {
    char name[16];
    std::snprintf(name, sizeof(name), "0x%04X", opcode);
    commands[name] = count;
  }
  using Json = nlohmann::ordered_json;
  return json.dump(0, ' ', true, Json::error_handler_t::replace) + "\n";
}

// At most once per period; a change in between is written at the period's end. A reader sees the
// old or the new file whole.
void Handset::WriteStatus() {
  const std::string text = StatusText();
  if (text == written_status_) return;
  const std::string fresh = root_.status_file() + ".new";
  std::ofstream out(fresh, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  const bool written = out.good() && std::rename(fresh.c_str(), root_.status_file().c_str()) == 0;
  if (!written && written_status_.empty()) Log("cannot write %s", root_.status_file().c_str());
  written_status_ = text;
  status_timer_ = loop_.After(kStatusPeriod, [this] { status_timer_ = EventLoop::kNoTimer; });
}

}  // namespace zvk
