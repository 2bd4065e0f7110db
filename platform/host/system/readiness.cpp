#define LOG_TAG "bthal.readiness"

#include "system/readiness.h"

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace bthal {
namespace {

void Notify(const std::string& message, int flags) {
  const char* const variable = getenv("NOTIFY_SOCKET");
  const std::string_view name = variable == nullptr ? "" : variable;
  if (name.empty()) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if ((name[0] != '/' && name[0] != '@') || name.size() >= sizeof address.sun_path) {
    LOG(WARNING) << "NOTIFY_SOCKET is neither a path nor an abstract name: \"" << name << "\"";
    return;
  }
  memcpy(address.sun_path, name.data(), name.size());
  if (name[0] == '@') address.sun_path[0] = '\0';
  // Without the zero byte behind it: one more byte would be another abstract name.
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  const android::base::unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const timeval limit{2, 0};  // for room in a queue that nobody may empty
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  if (fd.get() < 0 || sendto(fd.get(), message.data(), message.size(), MSG_NOSIGNAL | flags,
                             reinterpret_cast<const sockaddr*>(&address), size) < 0) {
    PLOG(WARNING) << "cannot tell " << name << " \"" << message << "\"";
  }
}

}  // namespace

void TellReadiness() { Notify("READY=1", 0); }

void TellStatus(const std::string& text) { Notify("STATUS=" + text, MSG_DONTWAIT); }

}  // namespace bthal
