#include "tools/log/bring_up_steps.h"

#include <string_view>
#include <utility>

#include "tools/hci/packet.h"

namespace bthalctl {
namespace {

using Kind = Progress::Kind;

// A start is the mark with which a bring-up begins.
enum class Meaning { kBegins, kEnds, kFails, kMark, kStart };

// What a log line means. Its text begins with before; what follows, up to after, is the detail. A
// line that ends a step, well or not, ends only the step of that name. Of several rules that fit
// the first one counts.
struct Rule {
  const char* tag;
  const char* before;
  const char* after;  // nullptr: before is the whole text
  Meaning meaning;
  const char* step;
};

constexpr char kPowerTag[] = "bthal.hwcontrol";

constexpr Rule kRules[] = {
    {"bthal.zvkbtlinux", "initialize_impl", nullptr, Meaning::kStart, "a stack attaches"},
    {"bthal.zvkbtlinux", "thread_perform_init", nullptr, Meaning::kStart,
     "the service brings the controller up ahead of any stack"},
    {"bthal.zvkbtlinux", "thread_perform_reinit", nullptr, Meaning::kStart,
     "the stack has died: the service brings the controller up again"},
    {"coex_device", "DeviceOpen", nullptr, Meaning::kBegins, "coexistence device"},
    {"bthal.zvkbtlinux", "open_coex_dev: return ret (1), count:", "", Meaning::kEnds,
     "coexistence device"},
    {"bthal.qvrhelper", "PrepareQvrTransport", nullptr, Meaning::kBegins, "co-processor"},
    {"bthal.qvrhelper", "PrepareQvrTransport: return ret (1), count:", "", Meaning::kEnds,
     "co-processor"},
    {kPowerTag, "PowerControl: Disabling, state_path: ", "", Meaning::kBegins, "power off"},
    {kPowerTag, "PowerControl: Enabling, state_path: ", "", Meaning::kBegins, "power on"},
    {"bthal.hwcontrol", "userial_tty_open: open ", "", Meaning::kBegins, "serial port"},
    {"bthal.hwcontrol", "UserialOpen: USERIAL (", ") Ready", Meaning::kEnds, "serial port"},
    {"bthal.zvkproto", "AcceleratedReset", nullptr, Meaning::kMark,
     "the controller is up already: a reset will do"},
    {"bthal.zvkproto", "send_hci_reset", nullptr, Meaning::kBegins, "reset and chip id"},
    {"bthal.zvkproto", "read_btzvk_chip_id: 0", "", Meaning::kFails, "reset and chip id"},
    {"bthal.zvkproto", "read_btzvk_chip_id: ", "", Meaning::kEnds, "reset and chip id"},
    {"bthal.zvkproto", "baudrate_change: Sending Update Baud Rate (115200", ") command",
     Meaning::kBegins, "firmware starts"},
    {"bthal.zvkproto", "baudrate_change: Sending Update Baud Rate (", ") command", Meaning::kBegins,
     "line speed"},
    {"bthal.zvkproto", "baudrate_change: Done", nullptr, Meaning::kEnds, "line speed"},
    {"bthal.zvkproto", "firmware_download: Looking for patchfile [", "]", Meaning::kBegins,
     "firmware file"},
    {"bthal.zvkproto", "enable_fast_download: Sending Set Download Config command", nullptr,
     Meaning::kBegins, "fast download"},
    {"bthal.zvkproto", "firmware_download: Fast download ", "", Meaning::kEnds, "fast download"},
    {"bthal.zvkproto", "firmware_download: Sending Download Minidrv command", nullptr,
     Meaning::kBegins, "download mode"},
    {"bthal.zvkproto", "firmware_download: Downloading Firmware Patchram data", "",
     Meaning::kBegins, "firmware records"},
    {"bthal.zvkproto", "firmware_download: Sending 0xfc4e ", "", Meaning::kBegins, "launch"},
    {"bthal.zvkproto", "firmware_download: Sending Launch Ram command", nullptr, Meaning::kBegins,
     "launch"},
    {"bthal.zvkproto", "firmware_download: Done", nullptr, Meaning::kEnds, "firmware starts"},
    {"bthal.zvkproto", "btzvk_read_local_name", nullptr, Meaning::kBegins, "local name"},
    {"bthal.zvkproto", "btzvk_read_local_name: ", "", Meaning::kEnds, "local name"},
    {"bthal.zvkproto", "lpm_setup", nullptr, Meaning::kBegins, "low power"},
    {"bthal.zvkproto", "lpm_setup: LPM Enabled", nullptr, Meaning::kEnds, "low power"},
    {"bthal.zvkbtlinux", "perform_init: BTZVK controller is ready", nullptr, Meaning::kMark,
     "the controller is ready"},
    {"bthal.bdaddress", "Provision: BDADDR <", ">", Meaning::kBegins, "device address"},
    {"bthal.bdaddress", "OnEventReceive: Recv Success VSE", "", Meaning::kEnds, "device address"},
    {"bthal.bdaddress", "OnEventReceive: Recv Failure VSE", "", Meaning::kFails, "device address"},
    {"bthal.activity", "OnBluetoothEnabled", nullptr, Meaning::kMark, "the extensions are ready"},
};

// Warnings and errors of bring-ups that go well. Null: a warning of its normal course, not shown.
struct Explanation {
  char priority;
  const char* tag;
  const char* begin;  // of the line's text
  const char* meaning;
  bool fails_step = true;  // an error: whether it is of the step during which it is logged
};

constexpr Explanation kExplanations[] = {
    {'W', "bthal.hci_h4", "Send: ", nullptr},  // the port takes the rest a moment later
    {'E', "bthal.hwcontrol", "LpmSetup: Unable to open LPM control port",
     "without low-power files the controller stays awake"},
    {'E', "bthal.async_fd_watcher", "ThreadRoutine unable to set SCHED_FIFO",
     "this user may not have real-time priority: the reader runs without", false},
    {'W', "bthal.zvkbtlinux", "ActivityWatcher registering failure",
     "no power-statistics service runs here"},
};

const Explanation* ExplanationOf(const LogLine& line) {
  for (const Explanation& row : kExplanations) {
    if (line.priority == row.priority && DetailOf(line, row.tag, row.begin, "")) return &row;
  }
  return nullptr;
}

// What a detail means, where the log's own form does not say it.
std::string Readable(std::string_view step, std::string_view detail) {
  if (step == "coexistence device" || step == "co-processor") {
    const std::string done = step == "co-processor" ? "connected" : "opened";
    return detail == "0" ? done : done + " after " + std::string(detail) + " failed attempts";
  }
  if (step == "reset and chip id") {
    return "chip id " + (detail.empty() ? "0" : std::string(detail));  // 0: it has none
  }
  if (step == "line speed") return std::string(detail) + " bit/s";
  if (step == "launch") return "";
  if (step == "device address") {
    // In the log the least significant byte comes first.
    const std::optional<Bytes> address = ParseAddress(std::string(detail));
    return address ? AddressText(Bytes(address->rbegin(), address->rend())) : std::string(detail);
  }
  return std::string(detail);
}

// The rule that holds for a line, and the detail in it.
const Rule* RuleOf(const LogLine& line, std::string* detail) {
  for (const Rule& rule : kRules) {
    const std::optional<std::string> found = DetailOf(line, rule.tag, rule.before, rule.after);
    if (!found) continue;
    *detail = rule.after == nullptr ? "" : Readable(rule.step, *found);
    return &rule;
  }
  return nullptr;
}

}  // namespace

std::optional<Progress> BringUpSteps::Running(std::chrono::system_clock::time_point now) const {
  if (!current_) return std::nullopt;
  const auto at = std::chrono::duration_cast<std::chrono::milliseconds>(now - *start_);
  return Progress{Progress::Kind::kBegin, current_->begin, at - current_->begin, current_->name,
                  current_->detail};
}

bool BringUpSteps::IsStart(const LogLine& line) {
  std::string detail;
  const Rule* const rule = RuleOf(line, &detail);
  return rule != nullptr && rule->meaning == Meaning::kStart;
}

std::vector<Progress> BringUpSteps::Feed(const LogLine& line) {
  std::vector<Progress> out;
  if (!start_) start_ = line.time;
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(line.time - *start_);

  std::string detail;
  const Rule* const rule = RuleOf(line, &detail);
  if (line.IsTrouble()) {
    const Explanation* const explanation = ExplanationOf(line);
    if (explanation != nullptr && explanation->meaning == nullptr) return out;
    const bool of_step = explanation == nullptr || explanation->fails_step;
    if ((line.priority != 'W' && of_step) ||
        (rule != nullptr && rule->meaning == Meaning::kFails)) {
      // Power goes off at once: other trouble behind it is of the step that was given up.
      const bool given_up = current_ && current_->name == "power off" && line.tag != kPowerTag;
      End(given_up ? Kind::kEnd : Kind::kFailed, now, &out);
    }
    if (troubles_.insert(line.text).second) {
      out.push_back({Kind::kTrouble,
                     now,
                     {},
                     std::string(1, line.priority) + " " + line.text,
                     explanation == nullptr ? "" : explanation->meaning});
    }
    return out;
  }
  if (rule == nullptr) return out;
  switch (rule->meaning) {
    case Meaning::kBegins:
      Begin({rule->step, detail, now}, &out);
      break;
    case Meaning::kEnds:
    case Meaning::kFails:
      if (!current_ || current_->name != rule->step) break;
      if (current_->detail.empty()) current_->detail = detail;
      End(rule->meaning == Meaning::kEnds ? Kind::kEnd : Kind::kFailed, now, &out);
      break;
    case Meaning::kMark:
    case Meaning::kStart:
      out.push_back({Kind::kMark, now, {}, rule->step, ""});
      break;
  }
  return out;
}

void BringUpSteps::Begin(Step step, std::vector<Progress>* out) {
  End(Kind::kEnd, step.begin, out);
  out->push_back({Kind::kBegin, step.begin, {}, step.name, step.detail});
  current_ = std::move(step);
}

void BringUpSteps::End(Kind kind, std::chrono::milliseconds now, std::vector<Progress>* out) {
  if (!current_) return;
  out->push_back({kind, current_->begin, now - current_->begin, current_->name, current_->detail});
  current_.reset();
  troubles_.clear();
}

}  // namespace bthalctl
