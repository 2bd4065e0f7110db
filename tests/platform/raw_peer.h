// A peer that writes its messages by hand, to break the rules.
#pragma once

#include <android-base/unique_fd.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/test_root.h"
#include "support/unix_socket.h"
#include "support/vectors.h"
#include "support/wait.h"

namespace test {

class RawPeer {
 public:
  static constexpr char kLink[] = "test.platform@1.0::ITest:default";

  bool connected() const { return socket_.ok(); }

  bool Send(const std::vector<uint8_t>& message, int descriptor = -1) {
    iovec part{const_cast<uint8_t*>(message.data()), message.size()};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (descriptor >= 0) {
      header.msg_control = control;
      header.msg_controllen = sizeof control;
      cmsghdr* rights = CMSG_FIRSTHDR(&header);
      *rights = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
      memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
    }
    return sendmsg(socket_.get(), &header, MSG_NOSIGNAL) == static_cast<ssize_t>(message.size());
  }
  // Sends a message of ipc_messages.txt.
  bool Send(const std::string& name, int descriptor = -1) {
    return Send(Message(name), descriptor);
  }
  // How many are taken before nothing more is for a while.
  int Flood(const std::string& name) {
    const std::vector<uint8_t> message = Message(name);
    pollfd room{socket_.get(), POLLOUT, 0};
    int sent = 0;
    while (sent < 100000 && poll(&room, 1, 100) == 1 && Send(message)) ++sent;
    return sent;
  }
  // One message; empty at the end of the connection.
  std::vector<uint8_t> Receive() {
    std::vector<uint8_t> message(256 * 1024);
    pollfd ready{socket_.get(), POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(kDeadline).count())) != 1) {
      return {};
    }
    const ssize_t size = recv(socket_.get(), message.data(), message.size(), 0);
    message.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return message;
  }
  // Whether the service is found; from then on it can be called.
  bool Find() { return Send("find") && Receive().size() > kHeaderBytes; }
  // Attaches a callback, which has to be answered by hand.
  bool Attach() { return Find() && Send("attach") && Receive().size() > kHeaderBytes; }

  static std::vector<uint8_t> Message(const std::string& name) {
    static const std::vector<Vector> messages = LoadVectors("ipc_messages.txt");
    for (const Vector& v : messages) {
      if (v.name == name) return ParseHex(v.fields[0]);
    }
    throw std::runtime_error("no message " + name);
  }

  static constexpr size_t kHeaderBytes = 56;

 private:
  const android::base::unique_fd socket_{
      ConnectUnix(RootFolder() + "/run/bthal/" + kLink, SOCK_SEQPACKET)};
};

}  // namespace test
