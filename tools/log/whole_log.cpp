#include "tools/log/whole_log.h"

#include <sys/stat.h>

#include <fstream>

namespace bthalctl {
namespace {

// 0: there is no such file.
ino_t Inode(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace

void ReadWholeLog(const std::string& path, const std::function<void(const std::string&)>& line) {
  const std::string older = path + ".1";
  std::ifstream files[2];
  // The writer may begin a new file between the two openings.
  ino_t inode = 0;
  do {
    inode = Inode(older);
    files[0] = std::ifstream(older);
    files[1] = std::ifstream(path);
  } while (inode != Inode(older));
  for (std::ifstream& file : files) {
    for (std::string text; std::getline(file, text);) line(text);
  }
}

}  // namespace bthalctl
