// The calls that run ahead of their answers, as the side that sends them counts them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "rpc/wire.h"

namespace bthal::rpc {

// So much may be on its way to a client, or wait there: what a client takes in some 20 ms at the
// speed of a fast serial line, and less than what may be queued on a connection.
constexpr uint64_t kMaxAheadCalls = 128;
constexpr uint64_t kMaxAheadBytes = 128 * 1024;

// Not safe by itself: the connection's lock guards it.
class AheadWindow {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // A client whose handler waits for us cannot run what comes next, and we may have to send it to
  // come to the answer: handler_waits makes the window four times as large.
  bool IsFull(bool handler_waits) const {
    const uint64_t factor = handler_waits ? 4 : 1;
    return sent_.calls - ran_.calls >= factor * kMaxAheadCalls ||
           sent_.bytes - ran_.bytes >= factor * kMaxAheadBytes;
  }

  // Counts one call more. Returns whether it has to ask for progress: four times a window, and once
  // a second of slow traffic.
  bool Add(uint64_t bytes, Time now) {
    ++sent_.calls;
    sent_.bytes += bytes;
    const bool asks = sent_.calls - asked_.calls >= kMaxAheadCalls / 4 ||
                      sent_.bytes - asked_.bytes >= kMaxAheadBytes / 4 ||
                      now - asked_at_ >= std::chrono::seconds(1);
    if (!asks) return false;
    if (!IsWaiting()) moved_at_ = now;
    asked_ = sent_;
    asked_at_ = now;
    return true;
  }

  // What the receiver tells. Returns false when it cannot be true.
  bool Advance(uint64_t calls, uint64_t bytes, Time now) {
    if (calls > sent_.calls || bytes > sent_.bytes) return false;
    if (calls <= ran_.calls) return true;  // two threads of the receiver's told in the other order
    if (bytes < ran_.bytes) return false;
    ran_ = {calls, bytes};
    moved_at_ = now;
    return true;
  }

  // Whether the receiver owes an answer.
  bool IsWaiting() const { return asked_.calls > ran_.calls; }
  // When the receiver gave the last answer that it owed, or has begun to owe one.
  Time moved_at() const { return moved_at_; }
  // The receiver had a reason for its silence until now.
  void Excuse(Time now) { moved_at_ = now; }

 private:
  struct Count {
    uint64_t calls = 0, bytes = 0;
  };
  Count sent_, asked_, ran_;
  Time asked_at_, moved_at_;
};

}  // namespace bthal::rpc
