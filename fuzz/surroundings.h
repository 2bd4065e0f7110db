// What surrounds the service, in one thread, in memory and in simulated time, for programs that are
// linked with these in the place of what starts threads and waits: timers, the reader of the line,
// the co-processor's library, the coexistence device, clocks, condition variables. A thread that
// the service starts for one task runs when it is told to, or when the service waits; other threads
// are refused.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace fuzz {

struct Surroundings {
  static Surroundings& Get() {
    static auto* const all = new Surroundings;
    return *all;
  }

  // A packet, behind its type byte, that the line has taken.
  std::function<void(uint8_t type, const std::string& packet)> on_packet;
  // Each part of one, before that.
  std::function<void()> on_part;
  // Has the controller or the stack do something while the service waits, for ever when endless.
  // Returns whether it did.
  std::function<bool(bool endless)> meanwhile;

  struct Alarm {
    std::chrono::nanoseconds at, period;
    std::function<void()> callback;
  };
  std::map<const void*, Alarm> alarms;  // by timer
  std::chrono::nanoseconds now = std::chrono::hours(1);
  std::deque<std::unique_ptr<std::thread::_State>> threads;  // not run yet
  std::function<void(int)> reader;                           // null: nobody reads the line
  std::function<void()> coexistence;                         // what a reset notice calls
  std::unique_ptr<std::thread::_State> signal_thread;        // waits for SIGTERM
  bool signalled = false;
  std::string unread;                    // on the line
  size_t read_size = 65536;              // what one read takes at most
  bool reading = false;                  // the reader's thread runs
  bool fails = false;                    // the line, when it is written to
  size_t room = SIZE_MAX;                // what it takes before it is full,
  std::chrono::nanoseconds full_for{0};  // for so long
  std::string taken;                     // of a packet
  bool wake_lock = false;
  int openings = 0;   // of the line
  bool dead = false;  // a fatal error came on another thread than the one that waits

  // What the controller sends, read at once.
  void Deliver(const std::string& bytes);
  void ResetNotice();
  // The thread that has waited longest. Returns whether there was one.
  bool RunThread();
  void Terminate();  // SIGTERM
  // Lets time pass, with what the timers do.
  void Pass(std::chrono::nanoseconds duration);
};

// Thrown out of a wait without end of a thread that runs while another one waits.
struct Blocked {};

}  // namespace fuzz
