#include "tools/h4/h4_server.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace bthalctl {
void H4Server::Run() {
  for (;;) Step(kNever);
}

void H4Server::Step(TimePoint deadline) {
  std::vector<pollfd> waits = {{link_.fd(), POLLIN, 0}};
  if (host_.ok()) {
    const int events = outbox_.waiting() ? POLLIN | POLLOUT : POLLIN;
    waits.push_back({host_.get(), static_cast<short>(events), 0});
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
  if (host_.ok()) DropFor(outbox_.Flush(host_.get()));
  while (std::optional<Packet> packet = link_.Take()) {
    if (!host_.ok()) continue;
    const auto type = static_cast<unsigned>(packet->type);
    if (1 + packet->bytes.size() > endpoint_.longest_packet()) {
      say_("a packet of " + std::to_string(packet->bytes.size()) +
           " bytes is dropped: the host takes " + std::to_string(endpoint_.longest_packet() - 1) +
           " at most");
      continue;
    }
    DropFor(outbox_.Put(host_.get(), Writer().U8(type).Append(packet->bytes).Done()));
  }
}

void H4Server::ReadHost() {
  uint8_t buffer[65536];
  const ssize_t size = read(host_.get(), buffer, sizeof buffer);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  // A pseudo-terminal whose host is gone reads as EIO.
  if (size <= 0) return Disconnect("it left");
  const wire::ByteView bytes(buffer, static_cast<size_t>(size));
  if (const std::optional<std::string> message = endpoint_.OwnMessage(bytes)) return say_(*message);
  bad_type_.reset();
  framer_.Push(bytes);
  if (bad_type_) {
    char why[64];
    std::snprintf(why, sizeof why, "it sent 0x%02X where a packet type belongs", *bad_type_);
    Disconnect(why);
  }
}

void H4Server::DropFor(const char* mistake) {
  if (mistake != nullptr) Disconnect(mistake);
}

void H4Server::Disconnect(const std::string& why) {
  host_.reset();
  framer_.Reset();
  outbox_ = Outbox(kMaxUnsent);
  say_("host disconnected: " + why);
}

}  // namespace bthalctl
