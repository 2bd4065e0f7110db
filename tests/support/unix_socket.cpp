#include "support/unix_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace test {
namespace {

// A socket for which call has done its part with the address; -1 when it has not.
template <typename Call>
int Opened(const std::string& path, int type, const Call& call) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("too long: " + path);
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  if (call(fd, reinterpret_cast<const sockaddr*>(&address), socklen_t{sizeof address}) == 0) {
    return fd;
  }
  close(fd);
  return -1;
}

}  // namespace

int ConnectUnix(const std::string& path, int type) { return Opened(path, type, connect); }

int ListenUnix(const std::string& path, int type) {
  const int fd = Opened(path, type, bind);
  if (fd < 0 || listen(fd, 1) != 0) throw std::runtime_error(path + ": " + strerror(errno));
  return fd;
}

}  // namespace test
