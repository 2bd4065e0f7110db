#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <functional>
#include <mutex>
#include <string>

#include "tools/base/outbox.h"
#include "tools/h4/endpoint.h"
#include "tools/link/hci_link.h"
#include "tools/wire/h4_framer.h"

namespace bthalctl {

// Offers a link as an H4 stream to one host at a time. Packets that arrive while there is no host
// are dropped. A host that sends what is not H4, or that does not read, is disconnected. Used on
// one thread; packets go to the host on the link's, if it has one.
class H4Server {
 public:
  // say gets a line for the user when a host comes or goes, or cannot take a packet: the latter on
  // the link's thread.
  H4Server(HciLink& link, Endpoint& endpoint, std::function<void(const std::string&)> say);
  ~H4Server();
  H4Server(const H4Server&) = delete;
  H4Server& operator=(const H4Server&) = delete;

  // Serves until Interrupted or Failure is thrown.
  void Run();
  // One wait, by deadline at most, and what it brought.
  void Step(TimePoint deadline);
  bool has_host() EXCLUDES(mutex_);

 private:
  static constexpr size_t kMaxUnsent = 1 << 20;

  void Accept() EXCLUDES(mutex_);
  void ReadHost() EXCLUDES(mutex_);
  // On a thread of the link's, or on the own one.
  void Deliver(PacketType type, ByteView packet) EXCLUDES(mutex_);
  void Flush() EXCLUDES(mutex_);
  void Disconnect(const std::string& why) EXCLUDES(mutex_);

  HciLink& link_;
  Endpoint& endpoint_;
  const std::function<void(const std::string&)> say_;
  const ::android::base::unique_fd news_;  // readable when Deliver() leaves something to do
  std::optional<uint8_t> bad_type_;        // in what was read last
  wire::H4Framer framer_{wire::H4Framer::From::kHost,
                         [this](PacketType type, ByteView packet) {
                           link_.Send({type, packet.Copy()});
                         },
                         [this](uint8_t bad) { bad_type_ = bad; }};
  std::mutex mutex_;
  ::android::base::unique_fd host_ GUARDED_BY(mutex_);  // changed on the own thread only
  Outbox outbox_ GUARDED_BY(mutex_){kMaxUnsent};
  const char* mistake_ GUARDED_BY(mutex_) = nullptr;  // for which to drop the host
};

}  // namespace bthalctl
