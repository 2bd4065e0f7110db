#include <fcntl.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>

#include "tools/base/failure.h"
#include "tools/h4/endpoint.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;

// Each host gets a new pseudo-terminal, which holds no bytes of the host before. As soon as one is
// given out, the link leads to the next.
class PtyEndpoint : public Endpoint {
 public:
  explicit PtyEndpoint(const std::string& link)
      : link_(link), opened_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (!opened_.ok()) throw Failure(WithErrno("inotify"));
    struct stat there = {};
    if (lstat(link.c_str(), &there) == 0 && !S_ISLNK(there.st_mode)) {
      throw Failure(link + " exists and is no link");
    }
    Prepare();
  }
  ~PtyEndpoint() override { unlink(link_.c_str()); }

  int fd() const override { return opened_.get(); }

  unique_fd Accept() override {
    alignas(inotify_event) char events[4096];
    const ssize_t size = read(opened_.get(), events, sizeof events);
    bool opened = false;
    for (ssize_t at = 0; at < size;) {
      inotify_event event;
      std::memcpy(&event, events + at, sizeof event);
      opened = opened || (event.wd == watch_ && (event.mask & IN_OPEN) != 0);
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
    if (!opened) return unique_fd();
    inotify_rm_watch(opened_.get(), watch_);
    unique_fd host = std::move(master_);
    Prepare();
    return host;
  }

  std::string Name() const override { return "pty:" + link_; }

 private:
  void Prepare() {
    master_.reset(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    char slave[64];
    termios raw = {};
    if (!master_.ok() || grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0 ||
        ptsname_r(master_.get(), slave, sizeof slave) != 0 || tcgetattr(master_.get(), &raw) != 0) {
      throw Failure(WithErrno("cannot make a pseudo-terminal"));
    }
    cfmakeraw(&raw);
    tcsetattr(master_.get(), TCSANOW, &raw);
    const std::string fresh = link_ + ".new";
    unlink(fresh.c_str());
    watch_ = inotify_add_watch(opened_.get(), slave, IN_OPEN);
    if (watch_ < 0 || symlink(slave, fresh.c_str()) != 0 ||
        rename(fresh.c_str(), link_.c_str()) != 0) {
      throw Failure(WithErrno("cannot make " + link_));
    }
  }

  const std::string link_;
  const unique_fd opened_;  // inotify: a host opened the terminal
  int watch_ = -1;
  unique_fd master_;
};

}  // namespace

std::unique_ptr<Endpoint> MakePtyEndpoint(const std::string& link) {
  return std::make_unique<PtyEndpoint>(link);
}

}  // namespace bthalctl
