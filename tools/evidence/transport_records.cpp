#include "tools/evidence/transport_records.h"

#include <chrono>
#include <cstdio>
#include <optional>
#include <sstream>
#include <string_view>

namespace bthalctl {
namespace {

using std::chrono::milliseconds;
using Kind = TransportState::Kind;
using Phase = TransportState::Phase;

constexpr milliseconds kDay = std::chrono::hours(24);
// From the power to the port, at most.
constexpr milliseconds kOpeningTime = std::chrono::seconds(10);

// A step and the time of day of its last appearance: "Timestamp of TEXT: HH:MM:SS:mmm".
struct Step {
  std::string detail;  // of TEXT, behind what it was found by
  milliseconds time;
};

std::optional<Step> FindStep(const std::string& section, std::string_view begin) {
  const std::string wanted = "Timestamp of " + std::string(begin);
  std::istringstream lines(section);
  for (std::string line; std::getline(lines, line);) {
    const size_t end = line.rfind(": ");
    if (end == std::string::npos || end < wanted.size() || line.find(wanted) != 0) continue;
    int hour = 0, minute = 0, second = 0, millisecond = 0;
    if (std::sscanf(line.c_str() + end, ": %2d:%2d:%2d:%3d", &hour, &minute, &second,
                    &millisecond) != 4) {
      continue;
    }
    return Step{line.substr(wanted.size(), end - wanted.size()),
                std::chrono::hours(hour) + std::chrono::minutes(minute) +
                    std::chrono::seconds(second) + milliseconds(millisecond)};
  }
  return std::nullopt;
}

// Whether a port was made ready and is the present transport.
bool PortIsOpen(const std::string& section, const Step& ready) {
  const auto power = FindStep(section, "PowerControl: Enabling");
  // Times have no date: a port that was closed may have been opened again.
  if (!power) return !FindStep(section, "UserialClose ");
  return (ready.time - power->time + kDay) % kDay < kOpeningTime;
}

}  // namespace

void ReadTransportRecords(const std::string& section, TransportState* state) {
  if (FindStep(section, "PowerControl: Disabling")) {
    state->Assume(Kind::kUnknown, Phase::kClosed, "");
    return;
  }
  const auto ready = FindStep(section, "USERIAL Ready FD: ");
  if (ready && PortIsOpen(section, *ready)) {
    const auto tty = FindStep(section, "userial_tty_open: open ");
    const bool serial = tty && ready->detail.find("type: <1>") != std::string::npos;
    state->Assume(serial ? Kind::kSerialLine : Kind::kHciSocket, Phase::kOpen,
                  serial ? tty->detail : "");
  } else if (FindStep(section, "PowerControl: Enabling")) {
    state->Assume(Kind::kCoProcessor, Phase::kOpen, "");
  }
}

}  // namespace bthalctl
