#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>

#include "sim/base/event_loop.h"
#include "sim/handset/pty.h"

namespace zvk {

// The serial line between host and controller. Bytes that are moved while the host's line speed is
// not the controller's arrive as noise. What is sent is queued and goes out in Flush; the line is
// never waited for. When the host does not read, its own bytes are left unread, as RTS/CTS does.
class Uart {
 public:
  struct Options {
    std::string link;
    size_t chunk = SIZE_MAX;  // bytes in one write at most
    bool pace = false;        // bytes move at line speed
    // Of the host's end, bit/s; empty: what it has set at the pseudo-terminal.
    std::function<uint32_t()> host_speed;
  };
  // bytes live for the call.
  using OnBytes = std::function<void(ByteView bytes)>;

  // before_turn runs before the line is read or written, to act first on what the host did earlier
  // through other files, such as the power switch.
  Uart(EventLoop& loop, std::mt19937& random, const Options& options,
       std::function<void()> before_turn, OnBytes on_bytes);
  ~Uart();

  void Send(ByteView bytes);
  // Runs when everything that is queued now is out.
  void AfterSent(std::function<void()> run);
  // What is queued from now on waits that long after what is queued now.
  void Pause(EventLoop::Duration pause);
  // Writes what the line takes. The owner calls it when nothing else is left to do.
  void Flush();
  // Reads everything that the host has written so far, at any pace.
  void Drain();

  void SetSpeed(uint32_t bits_per_second) { speed_ = bits_per_second; }
  uint32_t speed() const { return speed_; }
  size_t queued() const { return tx_.size() - tx_head_; }
  // Stops reading for time, or until power-off if time is zero, so that the line fills up.
  void StopReading(EventLoop::Duration time);
  // Power on: drops what was not read. If that ends with an HCI Reset, the host wrote it after it
  // switched the power on: it is returned; otherwise the result is empty.
  Bytes DropBacklog();
  // Power off: forgets what is queued and what the host has not read, and reads again.
  void Clear();
  // The host's descriptor is hung up; the link leads to a fresh line.
  void HangUp();

  uint64_t received() const { return received_; }
  uint64_t sent() const { return sent_; }

 private:
  struct Mark {
    uint64_t position;
    EventLoop::Duration pause;
    std::function<void()> run;
  };
  // How many bytes may move now at line speed. A busy line catches up after a late turn; an idle
  // line saves up almost nothing.
  class Budget {
   public:
    size_t Available(uint32_t bits_per_second);
    void Spend(size_t bytes) { bytes_ -= static_cast<double>(bytes); }
    void Rest() { busy_ = false; }

   private:
    double bytes_ = 0;
    bool busy_ = false;
    EventLoop::Time refilled_{};
  };

  void OpenLine();
  void OnReady(uint32_t events);
  // Returns false when nothing was there to read.
  bool ReadOnce(size_t limit);
  void Read();
  bool RunMarks();
  void UpdateEvents();
  uint32_t HostSpeed() const;
  bool InStep() const;
  void Garble(uint8_t* data, size_t size);

  EventLoop& loop_;
  std::mt19937& random_;
  const Options options_;
  const std::function<void()> before_turn_;
  const OnBytes on_bytes_;
  std::unique_ptr<Pty> pty_;
  Bytes rx_;
  uint32_t speed_;
  uint64_t received_ = 0;

  Bytes tx_;
  size_t tx_head_ = 0;  // sent part of tx_
  uint64_t sent_ = 0;
  std::deque<Mark> marks_;
  bool tx_blocked_ = false;  // the host does not read
  bool deaf_ = false;        // reads nothing
  EventLoop::TimerId deaf_end_ = EventLoop::kNoTimer;
  uint32_t events_ = 0;
  Budget rx_budget_;
  Budget tx_budget_;
  EventLoop::TimerId rx_timer_ = EventLoop::kNoTimer;
  EventLoop::TimerId tx_timer_ = EventLoop::kNoTimer;
};

}  // namespace zvk
