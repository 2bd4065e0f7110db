#pragma once

#include <android-base/unique_fd.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tools/base/outbox.h"
#include "tools/link/hci_link.h"

namespace bthalctl {

// Shares one attachment among several clients: what they send goes to the controller; an answer
// goes to the client whose command it answers, all else from the controller to every client. Runs
// on one thread. A client that does not read what it is sent is dropped.
class Holder {
 public:
  // Listens at once, so that clients can connect before Run(). Throws Failure: kBusy when there is
  // a holder at this path.
  explicit Holder(const std::string& socket_path);
  ~Holder();
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  // Serves until a client asks to quit or a signal arrives. Throws Failure when the attachment
  // ends. The client that asked is answered by Finish(), after link is closed.
  void Run(HciLink& link);
  // Makes room for another holder, then answers the clients that asked to quit.
  void Finish();

 private:
  struct Client {
    uint64_t id = 0;
    ::android::base::unique_fd fd;
    bool quitting = false;
    bool gone = false;
    Outbox outbox{16 << 20};
  };
  // A command on its way, and the client that awaits its answer.
  struct Pending {
    uint16_t opcode = 0;
    uint64_t client = 0;
  };

  void StopListening();
  void Accept();
  void ReadFrom(Client& client, HciLink& link);
  void OnMessage(Client& client, const Bytes& message, HciLink& link);
  void Deliver(const Packet& packet);
  void Queue(Client& client, Bytes message);
  std::string StatusJson() const;

  const std::string path_;
  ::android::base::unique_fd listener_;  // invalid after Finish()
  const TimePoint start_ = Clock::now();
  uint64_t next_id_ = 1;
  uint64_t sent_[6] = {};  // packets by H4 type
  uint64_t received_[6] = {};
  std::vector<std::unique_ptr<Client>> clients_;
  std::deque<Pending> pending_;
};

// Asks the holder of the root folder; nothing when there is none, or when it ended instead of
// answering. Throws Failure when there is no answer in time.
std::optional<std::string> AskHolder(uint8_t kind, std::chrono::milliseconds timeout);

// A share in the holder's attachment.
class HolderLink : public HciLink {
 public:
  static std::unique_ptr<HolderLink> Connect();  // null when there is no holder

  void Send(const Packet& packet) override;
  std::optional<Packet> Take() override;
  int fd() const override { return fd_.get(); }

 private:
  explicit HolderLink(::android::base::unique_fd fd) : fd_(std::move(fd)) {}
  void Write(const Bytes& message);
  std::optional<Bytes> Read();

  const ::android::base::unique_fd fd_;
};

}  // namespace bthalctl
