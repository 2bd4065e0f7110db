#include "tools/base/unix_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "tools/base/failure.h"
#include "tools/base/wait.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;

// A socket address holds 108 bytes; through its folder's descriptor any path fits.
class ShortPath {
 public:
  explicit ShortPath(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    folder_.reset(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string text = "/proc/self/fd/" + std::to_string(folder_.get()) + "/" + name;
    address_.sun_family = AF_UNIX;
    fits_ = folder_.ok() && text.size() < sizeof address_.sun_path;
    if (fits_) std::memcpy(address_.sun_path, text.c_str(), text.size() + 1);
    if (folder_.ok() && !fits_) errno = ENAMETOOLONG;
  }
  bool ok() const { return fits_; }
  const unique_fd& folder() const { return folder_; }
  const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&address_); }

 private:
  unique_fd folder_;
  sockaddr_un address_ = {};
  bool fits_ = false;
};

// A lock on the folder, released with the descriptor; invalid with errno set when another program
// keeps it for 2 s.
unique_fd LockFolder(const unique_fd& folder) {
  const TimePoint deadline = Clock::now() + std::chrono::seconds(2);
  unique_fd lock(openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  while (lock.ok() && flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR && (errno != EWOULDBLOCK || Clock::now() > deadline)) return unique_fd();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return lock;
}

}  // namespace

unique_fd ConnectUnix(const std::string& path, int type) {
  const ShortPath where(path);
  if (!where.ok()) return unique_fd();
  unique_fd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.ok() && connect(fd.get(), where.address(), sizeof(sockaddr_un)) == 0) return fd;
  return unique_fd();
}

unique_fd ListenUnix(const std::string& path, int type) {
  const ShortPath where(path);
  // Held from the look at what is there until the new socket listens: a program that looked in
  // between would take it for one that nobody listens at.
  const unique_fd lock = where.ok() ? LockFolder(where.folder()) : unique_fd();
  if (!lock.ok()) throw Failure(WithErrno("cannot listen at " + path));
  // EAGAIN: its queue of connections is full. EPROTOTYPE: it listens for another type.
  if (ConnectUnix(path, type).ok() || errno == EAGAIN || errno == EPROTOTYPE) {
    throw PathInUse(path + " is in use by another program");
  }
  struct stat there = {};
  if (lstat(path.c_str(), &there) == 0) {
    if (!S_ISSOCK(there.st_mode)) throw Failure(path + " exists and is no socket");
    unlink(path.c_str());
  }
  unique_fd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.ok() || bind(fd.get(), where.address(), sizeof(sockaddr_un)) != 0 ||
      chmod(path.c_str(), 0600) != 0 || listen(fd.get(), 16) != 0) {
    throw Failure(WithErrno("cannot listen at " + path));
  }
  return fd;
}

}  // namespace bthalctl
