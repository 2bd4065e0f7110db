#include "sim/handset/handset.h"

#include <cstdio>
#include <utility>

#include "sim/base/log.h"
#include "sim/co_processor/co_actions.h"
#include "sim/handset/controller_actions.h"
#include "sim/wire.h"

namespace zvk {
namespace {

constexpr auto kWarmUp = std::chrono::milliseconds(200);
constexpr auto kStatusPeriod = std::chrono::milliseconds(20);
// The controller's line while the co-processor has its other end.
constexpr char kCoProcessorLine[] = "run/zvksim/line";
constexpr size_t kCoProcessorDumpBytes = 4096;
constexpr size_t kLineBacklog = 1048576;  // bytes that wait for the host; more are dropped

// The address of a controller that nobody has given one.
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
      scenario_(loop, options.scenario, [this](const Action& action) { Act(action); }) {
  if (options.root.co_processor) {
    co_processor_ = std::make_unique<CoProcessor>(loop_, root_ / "run/qvr/transport",
                                                  root_ / kCoProcessorLine, CoProcessorBoard());
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

void Handset::DrainFiles() {
  rfkill_.Drain();
  lpm_.Drain();
  btwrite_.Drain();
}

bool Handset::Awake() const { return !status_.sleep_mode || !lpm_enabled_ || wake_asserted_; }

void Handset::OnPower(bool on, bool more) {
  if (!on) {
    // Of a power cycle that is seen as a whole, what the host wrote after it is kept.
    if (!more) uart_.Drain();
    after_power_on_ = uart_.DropBacklog();
    if (controller_) trace_.Note("power off");
    StopController();
    if (radio_) radio_->Disconnect();
    line_.Clear();
    uart_.Clear();
    return;
  }
  if (controller_) return;
  ++status_.power_cycles;
  uart_.DropStale();
  PowerOn();
  scenario_.OnPowerOn();
  OnHostBytes(std::exchange(after_power_on_, {}));
}

void Handset::PowerOn() {
  trace_.Note("power on");
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
  ++status_.starts;
  controller_ = std::make_unique<Controller>(loop_, random_, board, chip);
  status_.listening = true;
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
  status_.listening = false;
}

void Handset::LaunchFirmware(const std::string& name) {
  trace_.Note("firmware \"" + name + "\" starts");
  StopController();
  StartController(Chip(true, name));
  status_.listening = false;
  warm_up_timer_ = loop_.After(warm_up_, [this] {
    warm_up_timer_ = EventLoop::kNoTimer;
    status_.listening = true;
    trace_.Note("firmware ready");
  });
}

void Handset::OnHostBytes(ByteView bytes) {
  if (!status_.listening) return;
  if (!Awake()) {
    if (status_.bytes_lost_asleep == 0) Log("bytes for a controller that sleeps are lost");
    status_.bytes_lost_asleep += bytes.size();
    return;
  }
  framer_.Push(bytes);
  if (controller_) controller_->EndOfInput();
}

void Handset::OnHostPacket(PacketType type, ByteView packet) {
  ++status_.packets_from_host;
  trace_.FromHost(type, packet);
  if (type != PacketType::kCommand) {
    controller_->OnPacket(type, packet);
    return;
  }
  const uint16_t opcode = packet.U16(0);
  ++status_.commands[opcode];
  const uint64_t starts = status_.starts;
  const CommandFault fault = scenario_.OnCommand(opcode);
  if (fault.no_answer || starts != status_.starts) return;
  if (fault.late == ScenarioTime::zero()) {
    RunCommand(packet, fault.change);
    return;
  }
  loop_.After(fault.late, [this, starts, late = packet.Copy(), change = fault.change] {
    if (controller_ && starts == status_.starts) RunCommand(late, change);
  });
}

void Handset::RunCommand(ByteView packet, const AnswerChange& change) {
  const uint16_t opcode = packet.U16(0);
  controller_->OnCommand(packet, change);
  scenario_.OnAnswered(opcode);
}

void Handset::Act(const Action& action) {
  const auto byte = static_cast<uint8_t>(action.number);
  switch (action.kind) {
    case Action::Kind::kHangUp:
      trace_.Note("hang-up");
      uart_.HangUp();
      break;
    case Action::Kind::kSilence:
      line_.BeSilent(action.time);
      break;
    case Action::Kind::kHang:
      trace_.Note("hang");
      line_.BeSilent(action.time);
      uart_.StopReading(action.time);
      break;
    case Action::Kind::kStray:
      uart_.Send({&byte, 1});
      break;
    case Action::Kind::kTruncatedEvent:
      // Announces more than there is; what follows is swallowed by it.
      uart_.Send(Writer{static_cast<uint8_t>(PacketType::kEvent), event::kVendor, 0x20, 0x00});
      break;
    case Action::Kind::kHardwareError:
      SendToHost(PacketType::kEvent, Writer{event::kHardwareError, 1, byte});
      break;
    case Action::Kind::kInject:
      uart_.Send(action.bytes);
      break;
    case Action::Kind::kCoex:
      coex_.Notify(byte);
      break;
    case Action::Kind::kCoexMessage:
      coex_.Send(action.bytes);
      break;
    case Action::Kind::kCoexHangUp:
      coex_.HangUp();
      break;
    case Action::Kind::kTimeSync:
      time_sync_.Record(action.number);
      break;
    case Action::Kind::kNoise: {
      Bytes noise(action.number);
      for (uint8_t& noise_byte : noise) noise_byte = static_cast<uint8_t>(random_());
      uart_.Send(noise);
      break;
    }
    case Action::Kind::kSplit:
      line_.SplitAfter(action.number, action.time);
      break;
    case Action::Kind::kMerge:
      line_.Merge(action.number, action.time);
      break;
    case Action::Kind::kSpeed:
      SetSpeed(action.number);
      break;
    case Action::Kind::kWarmUp:
      warm_up_ = action.time;
      break;
    case Action::Kind::kBrownOut:
      if (controller_) BrownOut();
      break;
    default:
      if (controller_) ActOnController(action, *controller_);
      if (co_processor_) ActOnCoProcessor(action, random_, *co_processor_);
  }
}

// The supply dips: the controller starts anew, and the host is not told.
void Handset::BrownOut() {
  trace_.Note("brown-out");
  StopController();
  if (radio_) radio_->Disconnect();
  line_.Clear();
  uart_.Clear();
  PowerOn();
}

void Handset::OnLostSync(uint8_t bad) {
  ++status_.sync_losses;
  controller_->OnLostSync(bad);
}

void Handset::SendToHost(PacketType type, ByteView packet) {
  if (uart_.queued() + packet.size() > kLineBacklog) {
    if (status_.packets_dropped++ == 0) Log("the host does not read; packets are dropped");
    return;
  }
  if (!line_.Send(type, packet)) return;
  ++status_.packets_to_host;
  trace_.ToHost(type, packet);
}

void Handset::OnIdle() {
  uart_.Flush();
  trace_.Flush();
  if (status_timer_ == EventLoop::kNoTimer) WriteStatus();
}

// At most once a period; a change in between is written at the period's end.
void Handset::WriteStatus() {
  status_.powered = controller_ != nullptr;
  status_.patched = controller_ && controller_->chip().patched;
  status_.sleep_mode = controller_ && controller_->chip().sleep_mode;
  status_.speed_baud = controller_ ? uart_.speed() : 0;
  status_.lpm_enabled = lpm_enabled_;
  status_.awake = Awake();
  status_.address.clear();
  status_.extensions = {};
  if (controller_) {
    const ChipState& chip = controller_->chip();
    status_.address = AddressText(chip.provisioned.value_or(chip.address));
    const RadioLimitCommands& limits = controller_->radio_limits();
    status_.extensions = {Hex(limits.channel_map()),
                          limits.cap_format(),
                          Hex(limits.caps()),
                          controller_->ewp().interval(),
                          {}};
    for (const auto& [address, events] : controller_->ccc().registered()) {
      status_.extensions.ccc[AddressText(address)] = Hex(Bytes(events.begin(), events.end()));
    }
  }
  if (co_processor_) status_.co_processor = co_processor_->state();
  status_.bytes_from_host = uart_.received();
  status_.bytes_to_host = uart_.sent();
  status_.coex_acknowledged = coex_.acknowledged();
  const std::string text = StatusJson(status_, wake_locks_.accounts());
  if (text == written_status_) return;
  if (!ReplaceFile(root_.status_file(), text) && written_status_.empty()) {
    Log("cannot write %s", root_.status_file().c_str());
  }
  written_status_ = text;
  status_timer_ = loop_.After(kStatusPeriod, [this] { status_timer_ = EventLoop::kNoTimer; });
}

}  // namespace zvk
