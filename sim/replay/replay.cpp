#include "sim/replay/replay.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "sim/base/log.h"
#include "tools/wire/packet_text.h"

namespace zvk {
namespace {

constexpr size_t kToldBytes = 32;

std::string Shown(PacketType type, ByteView packet) { return PacketText(type, packet, kToldBytes); }

}  // namespace

Replay::Replay(EventLoop& loop, const ReplayOptions& options, Send send)
    : loop_(loop),
      file_(options.file),
      timing_(options.timing),
      send_(std::move(send)),
      packets_(ReadCaptureOfBringUp(options.file)) {}

void Replay::Advance() {
  ++next_;
  last_ = EventLoop::Clock::now();
  if (!done()) return;
  std::printf("replayed %s: %zu packets\n", file_.c_str(), packets_.size());
  std::fflush(stdout);
}

void Replay::Play(bool all) {
  loop_.Cancel(&timer_);
  while (!done() && packets_[next_].from_controller) {
    const CapturedPacket& packet = packets_[next_];
    if (!all && next_ > 0) {
      const auto due =
          last_ + std::chrono::nanoseconds(packet.time_ns - packets_[next_ - 1].time_ns);
      const auto now = EventLoop::Clock::now();
      if (due > now) {
        timer_ = loop_.After(due - now, [this] { Play(false); });
        return;
      }
    }
    send_(packet.packet.type, packet.packet.bytes);
    Advance();
  }
}

void Replay::PowerOn() {
  powered_ = true;
  last_ = EventLoop::Clock::now();
  Play(!timing_);
}

void Replay::PowerOff() {
  loop_.Cancel(&timer_);
  while (powered_ && !done() && packets_[next_].from_controller) Advance();
  powered_ = false;
}

void Replay::OnHostPacket(PacketType type, ByteView packet) {
  Play(true);  // the host is faster than it was
  if (done()) {
    if (!told_more_) Log("the capture has ended; not answered: %s", Shown(type, packet).c_str());
    told_more_ = true;
    return;
  }
  const Packet& wanted = packets_[next_].packet;
  if (wanted.type != type || wanted.bytes != packet.Copy()) {
    std::string got = Shown(type, packet);
    const ByteView bytes(wanted.bytes);
    const auto differs = static_cast<size_t>(
        std::mismatch(bytes.begin(), bytes.end(), packet.begin(), packet.end()).first -
        bytes.begin());
    if (wanted.type == type && differs >= kToldBytes) {
      got += "; from byte " + std::to_string(differs) + " on " +
             Hex(packet.From(differs), kToldBytes) + " where " +
             Hex(bytes.From(differs), kToldBytes) + " was wanted";
    }
    Mismatch(got);
    return;
  }
  Advance();
  Play(!timing_);
}

void Replay::OnLostSync(uint8_t bad) {
  if (!done()) Mismatch("byte 0x" + Hex({&bad, 1}) + ", which is no packet type");
}

void Replay::Mismatch(const std::string& got) {
  const CapturedPacket& wanted = packets_[next_];
  const auto us = wanted.time_ns / 1000;
  Log("%s: packet %zu of %zu, %" PRId64 ".%06" PRId64 " s after the first, did not come",
      file_.c_str(), next_ + 1, packets_.size(), us / 1000000, us % 1000000);
  Log("wanted %s", Shown(wanted.packet.type, wanted.packet.bytes).c_str());
  Log("got    %s", got.c_str());
  if (wanted.lost_before > 0) {
    Log("the capture says that %" PRIu64 " packets are missing before it", wanted.lost_before);
  }
  failed_ = true;
  loop_.Stop();
}

bool Replay::Finish() {
  if (!done() && !failed_) {
    const Packet& wanted = packets_[next_].packet;
    Log("%s: ended before packet %zu of %zu: %s", file_.c_str(), next_ + 1, packets_.size(),
        Shown(wanted.type, wanted.bytes).c_str());
  }
  return done();
}

}  // namespace zvk
