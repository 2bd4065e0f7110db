#pragma once

#include <android-base/unique_fd.h>

#include <functional>
#include <string>

namespace bthalctl {

// Follows a log file that another program writes. The file may appear later, and may be replaced by
// a new one. One thread.
class LogFollower {
 public:
  // from_start: begins with what the file has already.
  LogFollower(const std::string& path, bool from_start);

  // Readable when Drain may have something.
  int fd() const { return changes_.get(); }
  // Hands over the lines, without their ends, that were written since.
  void Drain(const std::function<void(const std::string&)>& line);

 private:
  void ReadFile(const std::function<void(const std::string&)>& line);

  const std::string path_;
  ::android::base::unique_fd changes_;  // inotify on the folder
  ::android::base::unique_fd file_;
  std::string partial_;
};

}  // namespace bthalctl
