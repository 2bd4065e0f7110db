#pragma once

#include <chrono>
#include <cstdio>
#include <string>

#include "sim/wire.h"

namespace zvk {

// One line per packet or event at the handset, with the seconds since the start:
//   0.052113 > command 03 0c 00 (Reset)
//   0.052130 < event 0e 04 01 03 0c 00 (Command Complete of Reset: Success)
//   0.061004 - power on
class Trace {
 public:
  // No path: nothing is written. Throws std::runtime_error when path cannot be written.
  explicit Trace(const std::string& path);
  ~Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  void FromHost(PacketType type, ByteView packet) { Packet('>', type, packet); }
  void ToHost(PacketType type, ByteView packet) { Packet('<', type, packet); }
  void Note(const std::string& text);
  void Flush();

 private:
  void Packet(char direction, PacketType type, ByteView packet);
  void Line(char direction, const std::string& text);

  std::FILE* file_ = nullptr;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace zvk
