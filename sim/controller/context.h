#pragma once

#include <functional>
#include <random>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/controller/activity_counters.h"
#include "sim/controller/chip.h"
#include "sim/controller/hci_out.h"

namespace zvk {

// The parts of the board outside the controller that commands act on.
struct BoardPort {
  // A packet for the host.
  HciOut::Sink send;
  // Passes standard commands and data to another emulator; empty with the built-in radio.
  HciOut::Sink radio;
  // The serial speed from the moment on when everything sent so far is out.
  std::function<void(uint32_t bits_per_second)> set_speed;
  // Starts the loaded firmware once everything sent so far is out. The controller is destroyed.
  std::function<void(const std::string& firmware_name)> launch;
  // The time-sync line toggles; returns when the kernel has seen it.
  std::function<EventLoop::Time()> toggle_time_sync;
};

// What all groups of commands share. Owned by the controller, which destroys its groups first.
struct Context {
  EventLoop& loop;
  std::mt19937& random;
  BoardPort& board;
  ChipState& chip;
  HciOut& out;
  ActivityCounters& activity;
  // Runs right after the answer to the command that is being run.
  std::function<void(std::function<void()>)> then;
};

}  // namespace zvk
