#define LOG_TAG "bthal.rpc"

#include "rpc/listener.h"

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>
#include <vector>

#include "rpc/connection.h"
#include "rpc/io_loop.h"
#include "rpc/load.h"
#include "rpc/proxy.h"
#include "rpc/wire.h"

namespace bthal::rpc {
namespace {

using android::base::unique_fd;

// The socket's own group counts, not the process's: the folder may hand its group down.
bool IsInGroup(int socket, gid_t group) {
  std::vector<gid_t> groups(64);
  auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  int result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
  if (result != 0 && errno == ERANGE) {
    groups.resize(size / sizeof(gid_t));
    result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
  }
  if (result != 0) return false;
  groups.resize(size / sizeof(gid_t));
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool MayConnect(int socket, gid_t group, const ucred& peer) {
  return peer.uid == geteuid() || peer.uid == 0 || peer.gid == group || IsInGroup(socket, group);
}

class Listener : public IoHandler {
 public:
  Listener(unique_fd socket, gid_t group)
      : socket_(std::move(socket)), group_(group), spare_(OpenSpare()) {}

  void OnReady(uint32_t /*events*/) override {
    unique_fd peer(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (peer.get() < 0 && (errno == EMFILE || errno == ENFILE)) {
      // Left in the queue it would keep the I/O thread busy: take it and close it.
      PLOG(ERROR) << "cannot accept a connection";
      spare_.reset();
      peer.reset(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (peer.get() >= 0) Refuse(peer.get(), EMFILE);
      peer.reset();
      spare_ = OpenSpare();
    }
    if (peer.get() < 0) return;
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(peer.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
        !MayConnect(peer.get(), group_, credentials)) {
      LOG(ERROR) << "process " << credentials.pid << " of user " << credentials.uid
                 << " may not connect";
      Refuse(peer.get(), EACCES);
    } else if (*peers_ >= kMaxPeers) {
      if (!std::exchange(told_full_, true)) {  // it may try again and again
        LOG(ERROR) << "process " << credentials.pid << " cannot connect: there are " << kMaxPeers
                   << " peers already";
      }
      Refuse(peer.get(), EUSERS);
    } else {
      told_full_ = false;
      ++*peers_;
      const auto leave = [peers = peers_] { --*peers; };
      if (!Connection::Start(std::move(peer), Connection::Side::kClient, leave)) leave();
    }
  }

 private:
  static void Refuse(int peer, int error) {
    MessageHeader header;
    header.type = MessageType::kRefusal;
    header.status = error;
    SendMessage(peer, header, {}, android::hardware::Parcel());
  }

  static unique_fd OpenSpare() { return unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

  const unique_fd socket_;
  const gid_t group_;
  unique_fd spare_;  // makes room for one accept when descriptors have run out
  bool told_full_ = false;
  const std::shared_ptr<std::atomic<int>> peers_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace

bool StartListening(const SocketFolder& folder, std::string* socket_name) {
  gid_t group = 0;
  unique_fd socket = folder.Listen(socket_name, &group);
  if (socket.get() < 0) {
    socket_name->clear();
    return false;
  }
  PostDeathNotifications({});  // has the thread for them now: later, the system may refuse one
  const int descriptor = socket.get();
  IoLoop& loop = IoLoop::Get();
  const bool listens = loop.Add(loop.NewKey(), descriptor, EPOLLIN,
                                std::make_shared<Listener>(std::move(socket), group));
  if (!listens) socket_name->clear();
  return listens;
}

}  // namespace bthal::rpc
