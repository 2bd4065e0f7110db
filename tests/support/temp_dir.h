#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test {

// A folder of its own for a test, gone with it. In memory where there is such a file system: the
// simulator and the service must not wait for a disk that others keep busy.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string ReadFile(const std::string& path);
// What f writes to the descriptor that it is given.
std::string Written(const std::function<void(int fd)>& f);
// The paths of the files in a folder, in order; none when it is not there.
std::vector<std::string> FilesIn(const std::string& folder);
// Makes the folders above path, too.
void WriteFile(const std::string& path, const std::string& content);

}  // namespace test
