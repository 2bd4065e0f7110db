#pragma once

#include <string>

namespace bench {

// A root folder with what the service needs of a handset.
class HandsetRoot {
 public:
  // path: of an existing folder, which outlives this object.
  explicit HandsetRoot(std::string path);

  const std::string& path() const { return path_; }
  // The controller is behind a tty.
  void UseSerialLine(const std::string& tty) const;
  // The controller is behind a co-processor, whose messages go through a socket in this folder.
  void UseCoProcessor() const;

 private:
  const std::string path_;
};

}  // namespace bench
