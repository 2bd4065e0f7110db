#include "platform/test_root.h"

#include <cstdlib>
#include <filesystem>

#include "support/temp_dir.h"

namespace test {
namespace {

TempDir* folder;

// The log's constructor already reads properties below the root folder.
__attribute__((constructor(101))) void MakeRootFolder() {
  folder = new TempDir;
  std::string path = folder->path();  // spelled too long for the address of a socket
  while (path.size() < 120) path += "/.";
  setenv("BTHAL_ROOT", path.c_str(), 1);
  atexit([] { delete folder; });
}

}  // namespace

const std::string& RootFolder() { return folder->path(); }

std::string TestProgram(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

}  // namespace test
