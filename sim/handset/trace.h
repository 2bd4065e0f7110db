#pragma once

#include <chrono>
#include <cstdio>
#include <string>

#include "sim/wire.h"

namespace zvk {

// One line a packet or event at the handset, with the seconds since the start:
//   0.052113 > command 03 0c 00
//   0.052130 < event 0e 04 01 03 0c 00
//   0.061004 - power on
class Trace {
 public:
  // No path: nothing is written. Throws std::runtime_error when path cannot be written.
  explicit Trace(const std::string& path);
  ~Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  void FromHost(PacketType type, ByteView packet) { Line('>', Name(type), packet); }
  void ToHost(PacketType type, ByteView packet) { Line('<', Name(type), packet); }
  void Note(const std::string& text) { Line('-', text.c_str(), {}); }
  void Flush();

 private:
  static const char* Name(PacketType type);
  void Line(char direction, const char* what, ByteView packet);

  std::FILE* file_ = nullptr;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace zvk
