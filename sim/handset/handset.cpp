#include "sim/handset/handset.h"

#include <cstdio>

#include "sim/base/log.h"

namespace zvk {
namespace {

constexpr auto kWarmUp = std::chrono::milliseconds(200);
constexpr auto kStatusPeriod = std::chrono::milliseconds(20);
constexpr size_t kLineBacklog = 1024 * 1024;  // bytes that wait for the host; more are dropped

// The address of a controller that nobody has given one.
constexpr Address kRomAddress = {0x00, 0x00, 0xF0, 0x4B, 0x56, 0x5A};

std::string AddressText(const Address& address) {
  char text[24];
  std::snprintf(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", address[5], address[4],
                address[3], address[2], address[1], address[0]);
  return text;
}

}  // namespace

Handset::Handset(EventLoop& loop, const HandsetOptions& options)
    : loop_(loop),
      preset_(*options.chip),
      random_(options.root.seed),
      root_(options.root, *options.chip),
      trace_(options.trace_file),
      framer_(
          Framer::From::kHost,
          [this](PacketType type, ByteView packet) { OnHostPacket(type, packet); },
          [this](uint8_t bad) { OnLostSync(bad); }),
      uart_(
          loop, random_, {root_ / "dev/ttySAC16", options.chunk, options.pace},
          [this] {
            rfkill_.Drain();
            lpm_.Drain();
            btwrite_.Drain();
          },
          [this](ByteView bytes) { OnHostBytes(bytes); }),
      rfkill_(loop, root_ / "sys/class/rfkill/rfkill0/state", [this](bool on) { OnPower(on); }),
      lpm_(loop, root_ / "proc/bluetooth/sleep/lpm",
           [this](bool on) {
             if (on) uart_.Drain();  // what was written before still finds it awake
             lpm_enabled_ = on;
             trace_.Note(on ? "low-power driver on" : "low-power driver off");
           }),
      btwrite_(loop, root_ / "proc/bluetooth/sleep/btwrite", [this](bool on) { OnWake(on); }),
      wake_locks_(loop, root_ / "sys/power/wake_lock", root_ / "sys/power/wake_unlock"),
      coex_(loop, root_ / "dev/wbrc"),
      time_sync_(root_ / "proc/bluetooth/timesync") {
  loop_.SetIdle([this] { OnIdle(); });
  WriteStatus();
}

Handset::~Handset() {
  loop_.SetIdle(nullptr);
  loop_.Cancel(&status_timer_);
  loop_.Cancel(&warm_up_timer_);
}

bool Handset::Awake() const { return !status_.sleep_mode || !lpm_enabled_ || wake_asserted_; }

void Handset::OnPower(bool on) {
  if (!on) {
    uart_.Drain();
    if (controller_) trace_.Note("power off");
    StopController();
    uart_.Clear();
    return;
  }
  if (controller_) return;
  ++status_.power_cycles;
  trace_.Note("power on");
  ChipState chip;
  chip.preset = &preset_;
  chip.patched = !preset_.needs_patch;
  chip.local_name = "ZVK ROM " + preset_.name;
  chip.address = kRomAddress;
  uart_.Drain();  // written while it was off
  StartController(chip);
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
  board.set_speed = [this](uint32_t speed) {
    uart_.AfterSent([this, speed] {
      uart_.SetSpeed(speed);
      trace_.Note("controller at " + std::to_string(speed) + " baud");
    });
  };
  board.launch = [this](const std::string& name) {
    uart_.AfterSent([this, name] { LaunchFirmware(name); });
  };
  controller_ = std::make_unique<Controller>(loop_, random_, board, chip);
  status_.listening = true;
}

void Handset::StopController() {
  controller_.reset();
  framer_.Reset();
  loop_.Cancel(&warm_up_timer_);
  status_.listening = false;
}

void Handset::LaunchFirmware(const std::string& name) {
  trace_.Note("firmware \"" + name + "\" starts");
  ChipState chip;
  chip.preset = &preset_;
  chip.patched = true;
  chip.local_name = name;
  chip.address = kRomAddress;
  StopController();
  StartController(chip);
  status_.listening = false;
  warm_up_timer_ = loop_.After(kWarmUp, [this] {
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
  ++status_.commands[packet.U16(0)];
  controller_->OnCommand(packet, {});
  status_.sleep_mode = controller_->chip().sleep_mode;
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
  ++status_.packets_to_host;
  trace_.ToHost(type, packet);
  const auto type_byte = static_cast<uint8_t>(type);
  uart_.Send({&type_byte, 1});
  uart_.Send(packet);
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
  if (controller_) {
    const ChipState& chip = controller_->chip();
    status_.address = AddressText(chip.provisioned.value_or(chip.address));
  }
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
