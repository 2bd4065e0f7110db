#include "sim/base/unix_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace zvk {
namespace {

using ::android::base::unique_fd;

constexpr int kBacklog = 16;

// Calls bind() or connect(). A path of any length is reached through the folder's descriptor.
int WithAddress(int (*call)(int, const sockaddr*, socklen_t), const unique_fd& fd,
                const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder_path = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const unique_fd folder(open(folder_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder.ok() || !fd.ok()) return -1;
  const std::string name = "/proc/self/fd/" + std::to_string(folder.get()) + "/" +
                           path.substr(slash == std::string::npos ? 0 : slash + 1);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, name.c_str(), sizeof(address.sun_path) - 1);
  return call(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
}

}  // namespace

unique_fd ListenUnix(const std::string& path, mode_t mode) {
  unlink(path.c_str());
  unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  // Before it has a name, so that nobody is let in meanwhile.
  const bool listens = fd.ok() && fchmod(fd.get(), S_IRUSR | S_IWUSR) == 0 &&
                       WithAddress(bind, fd, path) == 0 && chmod(path.c_str(), mode) == 0 &&
                       listen(fd.get(), kBacklog) == 0;
  if (!listens) throw std::runtime_error(path + ": " + std::strerror(errno));
  return fd;
}

unique_fd ConnectUnix(const std::string& path) {
  unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  return WithAddress(connect, fd, path) == 0 ? std::move(fd) : unique_fd();
}

}  // namespace zvk
