#include "tools/base/log_follower.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/base/failure.h"

namespace bthalctl {

LogFollower::LogFollower(const std::string& path, bool from_start)
    : path_(path), changes_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  const std::string folder = path.substr(0, path.rfind('/'));
  // Without the folder there is no service either; the caller finds that out by itself.
  inotify_add_watch(changes_.get(), folder.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO);
  file_.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file_.ok() && !from_start) lseek(file_.get(), 0, SEEK_END);
}

void LogFollower::Drain(const std::function<void(const std::string&)>& line) {
  alignas(inotify_event) char events[4096];
  while (read(changes_.get(), events, sizeof events) > 0) {
  }
  if (file_.ok()) ReadFile(line);
  struct stat now = {};
  struct stat open_file = {};
  const bool there = stat(path_.c_str(), &now) == 0;
  if (file_.ok() && fstat(file_.get(), &open_file) == 0 && there &&
      now.st_ino == open_file.st_ino) {
    return;
  }
  file_.reset(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (file_.ok()) ReadFile(line);
}

void LogFollower::ReadFile(const std::function<void(const std::string&)>& line) {
  char buffer[16384];
  for (ssize_t n; (n = read(file_.get(), buffer, sizeof buffer)) > 0;) {
    partial_.append(buffer, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1) {
      line(partial_.substr(start, end - start));
    }
    partial_.erase(0, start);
  }
}

}  // namespace bthalctl
