#include "tools/h4/h4_server.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "tools/base/failure.h"

namespace bthalctl {

H4Server::H4Server(HciLink& link, Endpoint& endpoint, std::function<void(const std::string&)> say)
    : link_(link),
      endpoint_(endpoint),
      say_(std::move(say)),
      news_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!news_.ok()) throw Failure(WithErrno("eventfd"));
  link_.DeliverTo([this](PacketType type, ByteView packet) { Deliver(type, packet); });
}

H4Server::~H4Server() { link_.DeliverTo(nullptr); }

bool H4Server::has_host() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return host_.ok();
}

void H4Server::Run() {
  for (;;) Step(kNever);
}

void H4Server::Step(TimePoint deadline) {
  std::vector<pollfd> waits = {{link_.fd(), POLLIN, 0}, {news_.get(), POLLIN, 0}};
  const bool had_host = has_host();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const int events = outbox_.waiting() ? POLLIN | POLLOUT : POLLIN;
    waits.push_back({had_host ? host_.get() : endpoint_.fd(), static_cast<short>(events), 0});
  }
  Wait(waits, deadline);

  if (waits[1].revents != 0) {
    uint64_t ignored = 0;
    [[maybe_unused]] const ssize_t drained = read(news_.get(), &ignored, sizeof ignored);
  }
  if (waits[2].revents != 0) {
    if (had_host) {
      ReadHost();
    } else {
      Accept();
    }
  }
  while (std::optional<Packet> packet = link_.Take()) Deliver(packet->type, packet->bytes);
  Flush();
}

void H4Server::Accept() {
  ::android::base::unique_fd host = endpoint_.Accept();
  if (!host.ok()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    host_ = std::move(host);
  }
  say_("host connected");
}

void H4Server::Deliver(PacketType type, ByteView packet) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!host_.ok() || mistake_ != nullptr) return;
  if (1 + packet.size() > endpoint_.longest_packet()) {
    say_("a packet of " + std::to_string(packet.size()) + " bytes is dropped: the host takes " +
         std::to_string(endpoint_.longest_packet() - 1) + " at most");
    return;
  }
  const bool waited = outbox_.waiting();
  mistake_ =
      outbox_.Put(host_.get(), Writer().U8(static_cast<unsigned>(type)).Append(packet).Done());
  if (mistake_ == nullptr && outbox_.waiting() == waited) return;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = write(news_.get(), &one, sizeof one);
}

void H4Server::Flush() {
  const char* mistake = nullptr;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (host_.ok() && mistake_ == nullptr) mistake_ = outbox_.Flush(host_.get());
    mistake = mistake_;
  }
  if (mistake != nullptr) Disconnect(mistake);
}

void H4Server::ReadHost() {
  uint8_t buffer[65536];
  int host = -1;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    host = host_.get();
  }
  const ssize_t size = read(host, buffer, sizeof buffer);
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

void H4Server::Disconnect(const std::string& why) {
  framer_.Reset();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    host_.reset();
    outbox_ = Outbox(kMaxUnsent);
    mistake_ = nullptr;
  }
  say_("host disconnected: " + why);
}

}  // namespace bthalctl
