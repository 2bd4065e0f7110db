#define LOG_TAG "bthal.rpc"

#include "rpc/socket_folder.h"

#include <android-base/logging.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include "root_folder/root_folder.h"

namespace bthal::rpc {
namespace {

using android::base::unique_fd;
using std::chrono::steady_clock;

constexpr char kSocketPrefix[] = "socket.";

std::string FolderPath() { return root_folder::Resolve("/run/bthal"); }

unique_fd NewSocket() {
  return unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// False with errno when path is too long.
bool ToAddress(const std::string& path, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  if (path.size() >= sizeof address->sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(address->sun_path, path.c_str(), path.size());
  return true;
}

// The folder, or the nearest one above it that exists.
std::string NearestFolder() {
  std::string path = FolderPath();
  while (path.size() > 1 && access(path.c_str(), F_OK) != 0) {
    const size_t slash = path.rfind('/');
    path.resize(slash == 0 || slash == std::string::npos ? 1 : slash);
  }
  return path;
}

}  // namespace

SocketFolder::SocketFolder(bool create) {
  const std::string path = FolderPath();
  if (create) {
    mkdir(root_folder::Resolve("/run").c_str(), 0755);
    mkdir(path.c_str(), 0750);
  }
  folder_.reset(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

std::string SocketFolder::ShortPath(const std::string& name) const {
  return "/proc/self/fd/" + std::to_string(folder_.get()) + "/" + name;
}

unique_fd SocketFolder::Listen(std::string* socket_name, gid_t* group) const {
  RemoveDeadSockets();
  *socket_name = kSocketPrefix + std::to_string(getpid());
  // It gets its name when it listens: until then it would look like one left behind.
  const std::string unborn = "new-" + *socket_name;
  sockaddr_un address;
  unique_fd listener = NewSocket();
  if (listener.get() < 0 || !ToAddress(ShortPath(unborn), &address)) return unique_fd();
  unlinkat(folder_.get(), unborn.c_str(), 0);
  struct stat status;
  if (bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      fchmodat(folder_.get(), unborn.c_str(), 0660, AT_SYMLINK_NOFOLLOW) != 0 ||
      fstatat(folder_.get(), unborn.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
      listen(listener.get(), 64) != 0 ||
      renameat(folder_.get(), unborn.c_str(), folder_.get(), socket_name->c_str()) != 0) {
    const int error = errno;
    unlinkat(folder_.get(), unborn.c_str(), 0);
    errno = error;
    return unique_fd();
  }
  *group = status.st_gid;
  return listener;
}

void SocketFolder::RemoveDeadSockets() const {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(FolderPath().c_str()), closedir);
  if (folder == nullptr) return;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name.rfind(kSocketPrefix, 0) != 0) continue;
    if (Connect(name).get() < 0 && errno == ECONNREFUSED) {
      LOG(INFO) << "removing " << name << ", which its process left behind";
      unlinkat(folder_.get(), name.c_str(), 0);
    }
  }
}

int SocketFolder::Link(const std::string& name, const std::string& socket_name) const {
  const std::string unborn = "new-" + name;
  unlinkat(folder_.get(), unborn.c_str(), 0);
  if (symlinkat(socket_name.c_str(), folder_.get(), unborn.c_str()) != 0 ||
      renameat(folder_.get(), unborn.c_str(), folder_.get(), name.c_str()) != 0) {
    const int error = errno;
    unlinkat(folder_.get(), unborn.c_str(), 0);
    return error;
  }
  return 0;
}

std::string SocketFolder::Target(const std::string& name) const {
  char target[NAME_MAX + 1];
  const ssize_t size = readlinkat(folder_.get(), name.c_str(), target, sizeof target);
  if (size < 0) return "";
  if (size == 0 || memchr(target, '/', static_cast<size_t>(size)) != nullptr) {
    errno = EINVAL;
    return "";
  }
  return std::string(target, static_cast<size_t>(size));
}

unique_fd SocketFolder::Connect(const std::string& socket_name) const {
  sockaddr_un address;
  unique_fd connection = NewSocket();
  if (connection.get() < 0 || !ToAddress(ShortPath(socket_name), &address) ||
      connect(connection.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    connection.reset();
    errno = error;
  }
  return connection;
}

bool SocketFolder::WaitUntil(steady_clock::time_point deadline, const std::function<bool()>& done) {
  for (;;) {
    const unique_fd changes(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (changes.get() < 0) PLOG(ERROR) << "inotify_init1";
    // The watch comes first, so that no change is missed.
    const std::string watched = NearestFolder();
    inotify_add_watch(changes.get(), watched.c_str(),
                      IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_ATTRIB);
    if (done()) return true;
    if (NearestFolder() != watched) continue;  // it was made before the watch was
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
    pollfd changed{changes.get(), POLLIN, 0};
    if (left <= 0 || poll(&changed, 1, static_cast<int>(left)) == 0) return done();
  }
}

}  // namespace bthal::rpc
