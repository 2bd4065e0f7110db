#pragma once

#include <map>
#include <memory>
#include <random>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/co_processor/co_processor.h"
#include "sim/control/control_socket.h"
#include "sim/controller/controller.h"
#include "sim/handset/coex_device.h"
#include "sim/handset/line_faults.h"
#include "sim/handset/root_folder.h"
#include "sim/handset/switch_file.h"
#include "sim/handset/time_sync.h"
#include "sim/handset/trace.h"
#include "sim/handset/uart.h"
#include "sim/handset/wake_locks.h"
#include "sim/radio/radio_bridge.h"
#include "sim/replay/replay.h"
#include "sim/scenario/scenario_runner.h"
#include "sim/wire.h"

namespace zvk {

struct HandsetOptions {
  RootFolder::Options root;
  const ChipPreset* chip = nullptr;
  size_t chunk = SIZE_MAX;
  bool pace = false;
  std::string trace_file;
  std::vector<Step> scenario;
  uint16_t vendor_version = 0x0100;  // of the vendor capabilities
  std::string radio;                 // unix:PATH or tcp:HOST:PORT; empty: the built-in one
  ReplayOptions replay;
};

// The simulated handset: its root folder, the serial line and the kernel files in it, and the
// controller behind them, which exists while its power is on.
class Handset {
 public:
  // Throws std::runtime_error with a one-line reason. The root folder is complete afterwards.
  Handset(EventLoop& loop, const HandsetOptions& options);
  ~Handset();

  const std::string& root() const { return root_.path(); }
  // At the end: whether all went as asked, which a replay tells.
  bool Finish() { return !replay_ || replay_->Finish(); }

  // What a scenario can do to a handset.
  static const std::vector<ActionType>& ActionTypes();

 private:
  // For the status file.
  struct Counts {
    uint64_t power_cycles = 0;  // times that the controller was switched on
    uint64_t starts = 0;        // of a firmware: by power-on and by Launch RAM
    uint64_t bytes_lost_asleep = 0;
    uint64_t packets_from_host = 0;
    uint64_t packets_to_host = 0;
    uint64_t packets_dropped = 0;  // because the host did not read
    uint64_t sync_losses = 0;
    std::map<uint16_t, uint64_t> commands;  // by opcode
  };

  void OnPower(bool on, bool more);
  void OnWake(bool asserted);
  void OnHostBytes(ByteView bytes);
  void OnHostPacket(PacketType type, ByteView packet);
  void OnLostSync(uint8_t bad);
  void RunCommand(ByteView packet, const AnswerChange& change);
  void SendToHost(PacketType type, ByteView packet);
  void DeliverToHost(PacketType type, ByteView packet);
  ChipState Chip(bool patched, const std::string& local_name) const;
  void PowerOn();
  Uart::Options LineOptions(const HandsetOptions& options);
  CoProcessor::Board CoProcessorBoard();
  std::string TakeStep(const std::string& text);
  void DrainFiles();
  void StartController(const ChipState& chip);
  void StopController();
  void HangUp();
  void Hang(EventLoop::Duration time);
  void BrownOut();
  void SetSpeed(uint32_t bits_per_second);
  void LaunchFirmware(const std::string& name);
  bool SleepMode() const;
  bool Awake() const;
  void OnIdle();
  std::string StatusText();
  void WriteStatus();

  EventLoop& loop_;
  const ChipPreset& preset_;
  const uint16_t vendor_version_;
  std::mt19937 random_;
  RootFolder root_;
  Trace trace_;
  Counts counts_;
  bool powered_ = false;
  bool listening_ = false;  // false while off and while a new firmware warms up
  bool wake_asserted_ = false;
  bool lpm_enabled_ = false;
  std::string written_status_;
  EventLoop::TimerId status_timer_ = EventLoop::kNoTimer;
  EventLoop::Duration warm_up_;
  EventLoop::TimerId warm_up_timer_ = EventLoop::kNoTimer;
  std::unique_ptr<Controller> controller_;  // null while the power is off, and in a replay
  std::unique_ptr<Replay> replay_;          // null but in a replay
  std::unique_ptr<RadioBridge> radio_;      // null with the built-in radio
  H4Framer framer_;
  Uart uart_;
  LineFaults line_;
  SwitchFile rfkill_;
  SwitchFile lpm_;
  SwitchFile btwrite_;
  WakeLocks wake_locks_;
  CoexDevice coex_;
  TimeSync time_sync_;
  ScenarioRunner scenario_;
  std::unique_ptr<CoProcessor> co_processor_;  // null when the host has the line
  std::unique_ptr<ControlSocket> control_;     // null in a replay
};

}  // namespace zvk
