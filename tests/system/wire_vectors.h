// The vectors of tests/data/bringup_wire.txt, which tells their format.
#pragma once

#include <string>
#include <vector>

#include "support/vectors.h"

namespace test {

struct WireStep {
  std::string name;
  Bytes packet;         // as it goes over the line, type byte first
  int speed = 0;        // of the host's side, bit/s
  bool awaited = true;  // whether the host waits for the completion
  uint8_t status = 0;   // that the controller completes it with

  uint16_t Opcode() const { return static_cast<uint16_t>(packet[1] | packet[2] << 8); }
};

struct WireVector {
  std::string name;  // "5A off with_launch"
  uint8_t chip = 0;
  bool fast_download = false;  // allowed by the configuration
  std::string patch_file;      // its content
  std::vector<WireStep> steps;
};

struct WireVectors {
  std::vector<WireVector> bring_ups;
  // Of a stack, on a controller that is up already.
  std::vector<WireStep> attach, close;
};

WireVectors LoadWireVectors();

}  // namespace test
