#include "tools/log/transport_state.h"

#include <charconv>

namespace bthalctl {
namespace {

enum class Event {
  kServiceStarts,
  kOpensSerialLine,
  kPortReady,
  kConnects,
  kConnected,
  kLost,
  kCloses,
  kAsksForSpeed,
  kSpeedAgreed,
  kLowPowerOn,
  kLowPowerOff
};

// What a line tells: see DetailOf.
struct StateRule {
  const char* tag;
  const char* before;
  const char* after;
  Event event;
};

constexpr StateRule kStateRules[] = {
    {"bthal.zvkbtlinux", "BluetoothHci", nullptr, Event::kServiceStarts},
    {"bthal.hwcontrol", "userial_tty_open: open ", "", Event::kOpensSerialLine},
    {"bthal.hwcontrol", "UserialOpen: USERIAL (", ") Ready", Event::kPortReady},
    {"bthal.qvrhelper", "InitQvrTransport", nullptr, Event::kConnects},
    {"bthal.qvrhelper", "PrepareQvrTransport: return ret (1)", "", Event::kConnected},
    // A byte that is no packet type: the service closes the port and switches the controller off.
    {"bthal.hci_h4", "OnDataReady: Unimplemented Packet Type", "", Event::kLost},
    {"bthal.hci_h4", "OnDataReady: Unexpected EOF", "", Event::kLost},
    {"bthal.qvrhelper", "handle_qvr_connection_event", "", Event::kLost},
    {"bthal.qvrhelper", "Deinitialize", nullptr, Event::kCloses},
    {"bthal.shim", "Deinitialize", nullptr, Event::kCloses},
    {"bthal.zvkproto", "baudrate_change: Sending Update Baud Rate (", ") command",
     Event::kAsksForSpeed},
    {"bthal.zvkproto", "baudrate_change: Done", nullptr, Event::kSpeedAgreed},
    {"bthal.zvkproto", "lpm_setup: LPM Enabled", nullptr, Event::kLowPowerOn},
    {"bthal.hwcontrol", "LpmTeardown: LPM Disabled", nullptr, Event::kLowPowerOff},
    {"bthal.zvkproto", "Shutdown", nullptr, Event::kLowPowerOff},
};

constexpr uint32_t kBootBaud = 115200;

}  // namespace

void TransportState::Enter(Kind kind, Phase phase) {
  kind_ = kind;
  path_.clear();
  Enter(phase);
}

void TransportState::Enter(Phase phase) {
  phase_ = phase;
  loss_.clear();
  asked_baud_ = 0;
  line_baud_.reset();
  low_power_.reset();
}

void TransportState::Assume(Kind kind, Phase phase, const std::string& path) {
  Enter(kind, phase);
  path_ = path;
}

void TransportState::Feed(const LogLine& line) {
  if (line.pid != pid_) return;
  std::optional<std::string> detail;
  const StateRule* rule = kStateRules;
  for (; rule != std::end(kStateRules); ++rule) {
    if ((detail = DetailOf(line, rule->tag, rule->before, rule->after))) break;
  }
  if (!detail) return;
  switch (rule->event) {
    case Event::kServiceStarts:  // an earlier one may have had the same number
      Enter(Kind::kUnknown, Phase::kClosed);
      break;
    case Event::kOpensSerialLine:
      Enter(Kind::kSerialLine, Phase::kOpening);
      path_ = *detail;
      break;
    case Event::kPortReady:
      if (kind_ == Kind::kSerialLine && phase_ == Phase::kOpening) {
        Enter(Phase::kOpen);
        line_baud_ = kBootBaud;
      } else {  // no terminal was opened before
        Enter(Kind::kHciSocket, Phase::kOpen);
      }
      low_power_ = false;
      break;
    case Event::kConnects:
      Enter(Kind::kCoProcessor, Phase::kOpening);
      break;
    case Event::kConnected:
      Enter(Kind::kCoProcessor, Phase::kOpen);
      low_power_ = false;
      break;
    case Event::kLost:
      if (phase_ == Phase::kClosed) break;  // its reader notices late
      Enter(Phase::kLost);
      loss_ = line.text;
      break;
    case Event::kCloses:
      Enter(Phase::kClosed);
      break;
    case Event::kAsksForSpeed:
      std::from_chars(detail->data(), detail->data() + detail->size(), asked_baud_);
      break;
    case Event::kSpeedAgreed:
      if (phase_ == Phase::kOpen && asked_baud_ != 0) line_baud_ = asked_baud_;
      break;
    case Event::kLowPowerOn:
      if (phase_ == Phase::kOpen) low_power_ = true;
      break;
    case Event::kLowPowerOff:
      if (phase_ == Phase::kOpen) low_power_ = false;
      break;
  }
}

const char* TransportState::KindText() const {
  switch (kind_) {
    case Kind::kUnknown:
      return "";
    case Kind::kSerialLine:
      return "serial line";
    case Kind::kHciSocket:
      return "HCI socket";
    case Kind::kCoProcessor:
      return "co-processor";
  }
  return "";
}

const char* TransportState::PhaseText() const {
  const bool connection = kind_ == Kind::kCoProcessor;
  switch (phase_) {
    case Phase::kUnknown:
      return "";
    case Phase::kClosed:
      return "closed";
    case Phase::kOpening:
      return connection ? "connecting" : "opening";
    case Phase::kOpen:
      return connection ? "connected" : "open";
    case Phase::kLost:
      return "lost";
  }
  return "";
}

std::string TransportState::Describe() const {
  if (phase_ == Phase::kUnknown) return "not known: nothing tells of its opening";
  std::string text = KindText();
  if (!path_.empty()) text += " " + path_;
  if (!text.empty()) text += ", ";
  text += PhaseText();
  if (!loss_.empty()) text += ": " + loss_;
  if (line_baud_) text += ", " + std::to_string(*line_baud_) + " bit/s";
  if (low_power_) text += *low_power_ ? ", low power on" : ", low power off";
  return text;
}

}  // namespace bthalctl
