#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/log/log_line.h"

namespace bthalctl {

// How a service reaches its controller at present, made out of its log lines: they are to be fed
// from the oldest on. Where the log does not tell of an opening, the kind stays unknown.
class TransportState {
 public:
  enum class Kind { kUnknown, kSerialLine, kHciSocket, kCoProcessor };
  enum class Phase { kUnknown, kClosed, kOpening, kOpen, kLost };

  // pid: of the service. Lines of other processes say nothing.
  explicit TransportState(int pid) : pid_(pid) {}

  void Feed(const LogLine& line);
  // What another source tells where the log does not. It knows of no speed and no power mode.
  void Assume(Kind kind, Phase phase, const std::string& path);

  Kind kind() const { return kind_; }
  Phase phase() const { return phase_; }
  // Of a serial line, else empty.
  const std::string& path() const { return path_; }
  // Bits per second that both ends have agreed upon. This and low power as long as it is open.
  std::optional<uint32_t> line_baud() const { return line_baud_; }
  std::optional<bool> low_power() const { return low_power_; }

  // "" when unknown.
  const char* KindText() const;
  const char* PhaseText() const;
  // All of it, in one line.
  std::string Describe() const;

 private:
  void Enter(Kind kind, Phase phase);
  void Enter(Phase phase);  // of the same kind

  const int pid_;
  Kind kind_ = Kind::kUnknown;
  Phase phase_ = Phase::kUnknown;
  std::string path_;
  std::string loss_;  // what the log says of it
  uint32_t asked_baud_ = 0;
  std::optional<uint32_t> line_baud_;
  std::optional<bool> low_power_;
};

}  // namespace bthalctl
