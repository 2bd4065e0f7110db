#include "sim/handset/uart.h"

#include <sys/epoll.h>

#include <algorithm>

#include "sim/controller/chip.h"

namespace zvk {
namespace {

constexpr size_t kReadBytes = 65536;
constexpr int kUartReadsPerTurn = 32;  // then other descriptors have their turn
constexpr size_t kTxHigh = 262144;
constexpr double kBitsPerByte = 10;  // start bit, 8 data bits, stop bit
constexpr auto kTick = std::chrono::milliseconds(1);
constexpr double kBurstSeconds = 0.002;
constexpr double kBusyBurstSeconds = 0.1;

}  // namespace

size_t Uart::Budget::Available(uint32_t bits_per_second) {
  const EventLoop::Time now = EventLoop::Clock::now();
  const double rate = bits_per_second / kBitsPerByte;
  const double seconds = std::chrono::duration<double>(now - refilled_).count();
  refilled_ = now;
  const double burst = busy_ ? kBusyBurstSeconds : kBurstSeconds;
  busy_ = true;
  bytes_ = std::min(bytes_ + seconds * rate, std::max(1.0, burst * rate));
  return bytes_ < 1 ? 0 : static_cast<size_t>(bytes_);
}

Uart::Uart(EventLoop& loop, std::mt19937& random, const Options& options,
           std::function<void()> before_turn, OnBytes on_bytes)
    : loop_(loop),
      random_(random),
      options_(options),
      before_turn_(std::move(before_turn)),
      on_bytes_(std::move(on_bytes)),
      rx_(kReadBytes),
      speed_(kBootSpeed) {
  OpenLine();
}

Uart::~Uart() {
  loop_.Cancel(&rx_timer_);
  loop_.Cancel(&tx_timer_);
  loop_.Cancel(&deaf_end_);
  loop_.Unwatch(pty_->fd());
}

void Uart::OpenLine() {
  pty_ = std::make_unique<Pty>(options_.link);
  events_ = EPOLLIN;
  loop_.Watch(pty_->fd(), events_, [this](uint32_t events) { OnReady(events); });
}

void Uart::HangUp() {
  Clear();
  loop_.Unwatch(pty_->fd());
  pty_.reset();  // first: its destructor removes the link
  OpenLine();
}

void Uart::StopReading(EventLoop::Duration time) {
  deaf_ = true;
  loop_.Cancel(&deaf_end_);
  if (time > EventLoop::Duration::zero()) {
    deaf_end_ = loop_.After(time, [this] {
      deaf_ = false;
      UpdateEvents();
    });
  }
  UpdateEvents();
}

Bytes Uart::DropBacklog() {
  static const Bytes kReset = {0x01, 0x03, 0x0C, 0x00};
  Bytes backlog;
  while (const size_t count = pty_->Read(rx_.data(), rx_.size())) {
    backlog.insert(backlog.end(), rx_.begin(), rx_.begin() + static_cast<ptrdiff_t>(count));
  }
  const bool reset = backlog.size() >= kReset.size() &&
                     std::equal(kReset.rbegin(), kReset.rend(), backlog.rbegin());
  return reset ? kReset : Bytes();
}

void Uart::Clear() {
  deaf_ = false;
  loop_.Cancel(&deaf_end_);
  tx_.clear();
  tx_head_ = 0;
  marks_.clear();
  tx_blocked_ = false;
  loop_.Cancel(&tx_timer_);
  pty_->DropUnread();
  UpdateEvents();
}

void Uart::UpdateEvents() {
  uint32_t wanted = 0;
  if (rx_timer_ == EventLoop::kNoTimer && queued() < kTxHigh && !deaf_) wanted |= EPOLLIN;
  if (tx_blocked_) wanted |= EPOLLOUT;
  if (wanted == events_) return;
  events_ = wanted;
  loop_.Change(pty_->fd(), events_);
}

void Uart::OnReady(uint32_t events) {
  if ((events & EPOLLOUT) != 0) tx_blocked_ = false;  // the owner flushes before it waits again
  if ((events & EPOLLIN) != 0) Read();
  UpdateEvents();
}

bool Uart::ReadOnce(size_t limit) {
  if (deaf_) return false;
  const size_t count = pty_->Read(rx_.data(), std::min(limit, rx_.size()));
  if (count == 0) return false;
  received_ += count;
  if (!InStep()) Garble(rx_.data(), count);
  on_bytes_({rx_.data(), count});
  return true;
}

void Uart::Read() {
  before_turn_();
  for (int turn = 0; turn < kUartReadsPerTurn && queued() < kTxHigh; ++turn) {
    size_t limit = SIZE_MAX;
    if (options_.pace) {
      limit = rx_budget_.Available(speed_);
      if (limit == 0) {
        rx_timer_ = loop_.After(kTick, [this] {
          rx_timer_ = EventLoop::kNoTimer;
          Read();
          UpdateEvents();
        });
        return;
      }
    }
    const uint64_t before = received_;
    if (!ReadOnce(limit)) {
      rx_budget_.Rest();
      return;
    }
    rx_budget_.Spend(static_cast<size_t>(received_ - before));
  }
}

void Uart::Drain() {
  while (ReadOnce(SIZE_MAX)) {
  }
}

void Uart::Send(ByteView bytes) { tx_.insert(tx_.end(), bytes.begin(), bytes.end()); }

void Uart::AfterSent(std::function<void()> run) {
  marks_.push_back({sent_ + queued(), {}, std::move(run)});
}

void Uart::Pause(EventLoop::Duration pause) {
  marks_.push_back({sent_ + queued(), pause, nullptr});
}

uint32_t Uart::HostSpeed() const {
  return options_.host_speed ? options_.host_speed() : pty_->Speed();
}

// The co-processor's clock yields 6144000 for 6000000, which is close enough.
bool Uart::InStep() const {
  const uint32_t host = HostSpeed();
  return host == speed_ || (host == 6144000 && speed_ == 6000000);
}

void Uart::Garble(uint8_t* data, size_t size) {
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(random_());
}

// Returns false while a pause lasts.
bool Uart::RunMarks() {
  while (!marks_.empty() && marks_.front().position <= sent_) {
    const Mark mark = std::move(marks_.front());
    marks_.pop_front();
    if (mark.run) mark.run();
    if (mark.pause > EventLoop::Duration::zero()) {
      tx_timer_ = loop_.After(mark.pause, [this] { tx_timer_ = EventLoop::kNoTimer; });
      return false;
    }
  }
  return true;
}

void Uart::Flush() {
  if (tx_blocked_ || tx_timer_ != EventLoop::kNoTimer) return;
  if (queued() > 0) before_turn_();
  bool noise = false;
  bool speed_known = false;
  while (RunMarks() && queued() > 0) {
    if (!speed_known) noise = !InStep();
    speed_known = marks_.empty();  // a mark may change the speed
    size_t count = std::min(queued(), options_.chunk);
    if (!marks_.empty()) count = std::min(count, static_cast<size_t>(marks_[0].position - sent_));
    if (options_.pace) {
      count = std::min(count, tx_budget_.Available(speed_));
      if (count == 0) {
        tx_timer_ = loop_.After(kTick, [this] { tx_timer_ = EventLoop::kNoTimer; });
        break;
      }
    }
    if (noise) Garble(tx_.data() + tx_head_, count);
    const size_t written = pty_->Write(ByteView(tx_).Sub(tx_head_, count));
    if (written == 0) {
      tx_blocked_ = true;
      break;
    }
    tx_budget_.Spend(written);
    tx_head_ += written;
    sent_ += written;
    if (queued() == 0) {
      tx_.clear();
      tx_head_ = 0;
      tx_budget_.Rest();
    } else if (tx_head_ >= kTxHigh) {
      tx_.erase(tx_.begin(), tx_.begin() + static_cast<ptrdiff_t>(tx_head_));
      tx_head_ = 0;
    }
  }
  UpdateEvents();
}

}  // namespace zvk
