#pragma once

#include <android-base/unique_fd.h>

#include <functional>
#include <string>

#include "tools/base/outbox.h"
#include "tools/h4/endpoint.h"
#include "tools/link/hci_link.h"
#include "tools/wire/h4_framer.h"

namespace bthalctl {

// Offers a link as an H4 stream to one host at a time. Packets that arrive while there is no host
// are dropped. A host that sends what is not H4, or that does not read, is disconnected. One
// thread.
class H4Server {
 public:
  // say gets a line for the user when a host comes or goes.
  H4Server(HciLink& link, Endpoint& endpoint, std::function<void(const std::string&)> say)
      : link_(link), endpoint_(endpoint), say_(std::move(say)) {}

  // Serves until Interrupted or Failure is thrown.
  void Run();
  // One wait, by deadline at most, and what it brought.
  void Step(TimePoint deadline);
  bool has_host() const { return host_.ok(); }

 private:
  static constexpr size_t kMaxUnsent = 1 << 20;

  void ReadHost();
  void DropFor(const char* mistake);  // null: keeps the host
  void Disconnect(const std::string& why);

  HciLink& link_;
  Endpoint& endpoint_;
  const std::function<void(const std::string&)> say_;
  ::android::base::unique_fd host_;
  std::optional<uint8_t> bad_type_;  // in what was read last
  wire::H4Framer framer_{wire::H4Framer::From::kHost,
                         [this](PacketType type, ByteView packet) {
                           link_.Send({type, packet.Copy()});
                         },
                         [this](uint8_t bad) { bad_type_ = bad; }};
  Outbox outbox_{kMaxUnsent};
};

}  // namespace bthalctl
