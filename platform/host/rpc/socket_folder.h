// The folder of sockets, ROOT/run/bthal: one socket for each process that serves, one symbolic link
// to it for each name. Paths of any length work.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

namespace bthal::rpc {

class SocketFolder {
 public:
  // The folder as it is now; made, when create asks for it, with mode 0750. ok() is false when it
  // is not there.
  explicit SocketFolder(bool create);
  bool ok() const { return folder_.get() >= 0; }

  // Binds this process's socket, mode 0660, and listens; sets its name and its group.
  // Invalid, with errno, on failure. Sockets that processes left behind are removed.
  android::base::unique_fd Listen(std::string* socket_name, gid_t* group) const;
  // Points name at the socket, in place of whatever it pointed at. 0 or errno.
  int Link(const std::string& name, const std::string& socket_name) const;
  // The socket that name points at; empty, with errno, when it points at none.
  std::string Target(const std::string& name) const;
  // Connects; invalid, with errno, when no process listens.
  android::base::unique_fd Connect(const std::string& socket_name) const;

  // Calls done until it returns true: now, and whenever the folder (or the part of its path that
  // exists) changes. False at the deadline.
  static bool WaitUntil(std::chrono::steady_clock::time_point deadline,
                        const std::function<bool()>& done);

 private:
  // A path to name that fits into a socket address.
  std::string ShortPath(const std::string& name) const;
  void RemoveDeadSockets() const;

  android::base::unique_fd folder_;
};

}  // namespace bthal::rpc
