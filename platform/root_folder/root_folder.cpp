#include "root_folder/root_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace root_folder {
namespace {

std::string FolderFromEnvironment() {
  const char* value = getenv("BTHAL_ROOT");
  std::string folder = value == nullptr ? "" : value;
  if (!folder.empty() && folder.front() != '/') {
    char* here = getcwd(nullptr, 0);
    if (here != nullptr) folder = std::string(here) + "/" + folder;
    free(here);
  }
  while (!folder.empty() && folder.back() == '/') folder.pop_back();
  return folder;
}

}  // namespace

const std::string& Path() {
  static const auto* folder = new std::string(FolderFromEnvironment());
  return *folder;
}

std::string Resolve(const std::string& path) {
  return Path() + (path.empty() || path.front() != '/' ? "/" : "") + path;
}

int Open(const std::string& path, int flags, mode_t mode) {
  return open(Resolve(path).c_str(), flags | O_CLOEXEC, mode);
}

DIR* OpenDirectory(const std::string& path) { return opendir(Resolve(path).c_str()); }

bool Exists(const std::string& path) { return access(Resolve(path).c_str(), F_OK) == 0; }

}  // namespace root_folder
