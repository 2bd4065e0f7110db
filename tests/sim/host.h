// The host's end of a simulated handset, in bytes: a serial line with H4 packets, kernel files.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/vectors.h"
#include "support/wait.h"

namespace test {

inline Bytes B(const std::string& hex) { return ParseHex(hex); }
inline Bytes operator+(const Bytes& a, const Bytes& b) { return Concat(a, b); }

// A zvksim on a root folder of its own, and the serial line to it.
class Host {
 public:
  explicit Host(const std::vector<std::string>& options, const std::string& scenario = "");

  std::string root() const { return folder_ / "root"; }
  ChildProcess& zvksim() { return zvksim_; }

  // Into a kernel file of the handset.
  void Write(const std::string& file, const std::string& text);
  void Power(bool on) { Write("/sys/class/rfkill/rfkill0/state", on ? "1" : "0"); }
  // Waits until the status file holds text.
  bool StatusHolds(const std::string& text);
  // Off, on, and the line open at 115200 when the controller takes commands.
  void PowerUp();
  // Waits until the controller has started once more than at the last call, and takes commands.
  bool Started();

  void SetSpeed(int bits_per_second);  // 115200, 3000000 or 4000000
  void Send(const Bytes& bytes);
  // As many bytes as there are on the line by then, at most size.
  Bytes Receive(size_t size, std::chrono::milliseconds deadline = kDeadline);
  // The next packet with its type byte; empty when none came.
  Bytes Next();
  // Sends a command and returns its Command Complete or Command Status; other packets are dropped.
  Bytes Command(uint16_t opcode, const Bytes& params);

 private:
  std::vector<std::string> Arguments(const std::vector<std::string>& options,
                                     const std::string& scenario) const;

  TempDir folder_;
  ChildProcess zvksim_;
  ::android::base::unique_fd line_;
  Bytes received_;
  int starts_ = 0;
};

}  // namespace test
