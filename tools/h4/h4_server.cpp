#include "tools/h4/h4_server.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace bthalctl {
namespace {

// What a host may leave unread; a live one is never this far behind.
constexpr size_t kMaxUnsent = 1 << 20;

}  // namespace

void H4Server::Run() {
  for (;;) Step(kNever);
}

void H4Server::Step(TimePoint deadline) {
  std::vector<pollfd> waits = {{link_.fd(), POLLIN, 0}};
  if (host_.ok()) {
    const bool behind = written_ < unsent_.size();
    waits.push_back({host_.get(), static_cast<short>(behind ? POLLIN | POLLOUT : POLLIN), 0});
  } else {
    waits.push_back({endpoint_.fd(), POLLIN, 0});
  }
  Wait(waits, deadline);

  if (!host_.ok() && waits[1].revents != 0) {
    host_ = endpoint_.Accept();
    if (host_.ok()) say_("host connected");
  } else if (host_.ok() && waits[1].revents != 0) {
    ReadHost();
  }
  while (std::optional<Packet> packet = link_.Take()) {
    if (!host_.ok()) continue;
    unsent_.push_back(static_cast<uint8_t>(packet->type));
    unsent_.insert(unsent_.end(), packet->bytes.begin(), packet->bytes.end());
    if (unsent_.size() - written_ > kMaxUnsent) Disconnect("it does not read");
  }
  if (host_.ok()) WriteHost();
}

void H4Server::ReadHost() {
  uint8_t buffer[65536];
  const ssize_t size = read(host_.get(), buffer, sizeof buffer);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  // A pseudo-terminal whose host is gone reads as EIO.
  if (size <= 0) return Disconnect("it left");
  const bool good = framer_.Push(buffer, static_cast<size_t>(size),
                                 [this](const Packet& packet) { link_.Send(packet); });
  if (!good) {
    char why[64];
    std::snprintf(why, sizeof why, "it sent 0x%02X where a packet type belongs",
                  framer_.bad_type());
    Disconnect(why);
  }
}

void H4Server::WriteHost() {
  while (written_ < unsent_.size()) {
    const ssize_t size = write(host_.get(), unsent_.data() + written_, unsent_.size() - written_);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == EAGAIN) break;
    if (size <= 0) return Disconnect("it left");
    written_ += static_cast<size_t>(size);
  }
  unsent_.erase(unsent_.begin(), unsent_.begin() + static_cast<ptrdiff_t>(written_));
  written_ = 0;
}

void H4Server::Disconnect(const std::string& why) {
  host_.reset();
  framer_.Reset();
  unsent_.clear();
  written_ = 0;
  say_("host disconnected: " + why);
}

}  // namespace bthalctl
