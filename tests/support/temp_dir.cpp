#include "support/temp_dir.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace test {

namespace {

std::filesystem::path Parent() {
  const char* memory = "/dev/shm";
  return access(memory, W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
}

}  // namespace

TempDir::TempDir() : path_((Parent() / "bthal-XXXXXX").string()) {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp " + path_);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string Written(const std::function<void(int fd)>& f) {
  const int fd = memfd_create("written", MFD_CLOEXEC);
  f(fd);
  const std::string text = ReadFile("/proc/self/fd/" + std::to_string(fd));
  close(fd);
  return text;
}

std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> paths;
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator(folder, none)) {
    if (entry.is_regular_file()) paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

void WriteFile(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

}  // namespace test
