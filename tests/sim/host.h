// The host's end of a simulated handset, in bytes: a serial line with H4 packets, kernel files.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/vectors.h"
#include "support/wait.h"

namespace test {

inline Bytes B(const std::string& hex) { return ParseHex(hex); }
inline Bytes operator+(const Bytes& a, const Bytes& b) { return Concat(a, b); }
uint64_t Little(const Bytes& bytes, size_t at, size_t width);
// n bytes that hold every value, also those that a terminal would change.
Bytes Pattern(size_t n);

// A zvksim on a root folder of its own, and the serial line to it.
class Host {
 public:
  explicit Host(const std::vector<std::string>& options = {}, const std::string& scenario = "");
  ~Host();

  const std::string& root() const { return root_; }
  ChildProcess& zvksim() { return *zvksim_; }
  void Restart();

  std::string Status() const { return ReadFile(root_ + "/run/zvksim/status"); }
  // A file of the handset that holds firmware.
  Bytes Firmware(const std::string& name) const;

  // Into a kernel file of the handset.
  void Write(const std::string& file, const std::string& text);
  void Power(bool on) { Write("/sys/class/rfkill/rfkill0/state", on ? "1" : "0"); }
  // Waits until the status file holds text.
  bool StatusHolds(const std::string& text);
  // Waits until the controller has started once more than the last time that this was asked or
  // PowerUp was called, and takes commands.
  bool Started();

  // bits_per_second: 115200, 3000000 or 4000000.
  void OpenLine(int bits_per_second = 115200);
  void SetSpeed(int bits_per_second);
  void CloseLine();
  void Send(const Bytes& bytes);
  // The next packet from the controller with its type byte; empty when none came by then, or when
  // the line was hung up.
  Bytes Next(std::chrono::milliseconds deadline = kDeadline);
  // What is on the line as it is, at least one byte.
  Bytes Raw(std::chrono::milliseconds deadline = kDeadline);
  // The same, until it is so many bytes.
  Bytes Raw(size_t size);
  bool HungUp() const { return hung_up_; }
  // Drops what comes until no byte has come for quiet.
  void Settle(std::chrono::milliseconds quiet);

  // Sends a command and returns its Command Complete or Command Status; what came before it is
  // kept in before().
  Bytes Command(uint16_t opcode, const Bytes& params = {});
  const std::vector<Bytes>& before() const { return before_; }
  // The next packet that begins so; others are dropped.
  Bytes Find(const Bytes& start, std::chrono::milliseconds deadline = kDeadline);

  // Off, on, line open, and for a patched chip everything up to the running firmware at 115200.
  void PowerUp();
  void BringUp(const std::string& firmware = "ZVK_B5.hcd", bool fast = true);
  // Sends a firmware file's records; returns Launch RAM's status, or that of the record refused.
  uint8_t Download(const Bytes& file, bool fast);

 private:
  void Start();
  bool Fill(std::chrono::steady_clock::time_point deadline);

  TempDir folder_;
  std::string root_;
  std::vector<std::string> command_;
  std::unique_ptr<ChildProcess> zvksim_;
  int line_ = -1;
  bool hung_up_ = false;
  Bytes received_;
  int starts_ = 0;
  std::vector<Bytes> before_;
};

// One that is powered up and needs no patch.
struct ReadyHost : Host {
  explicit ReadyHost(const std::string& scenario = "") : Host({"--chip", "ready"}, scenario) {
    PowerUp();
  }
};

}  // namespace test
