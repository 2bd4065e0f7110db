// Runs a target without an engine: over its seeds, then over the files of the folders that are
// named.
#include <cstdio>
#include <filesystem>

#include "support/temp_dir.h"
#include "target.h"

namespace {

int count = 0;

void Run(const std::string& name, const std::string& input) {
  printf("%s\n", name.c_str());  // the last line tells which one failed
  fflush(stdout);
  // An allocation of exactly this size, so that a read behind the end is seen.
  const std::vector<uint8_t> bytes(input.begin(), input.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  ++count;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  for (const std::string& seed : fuzz::Seeds()) Run("seed " + std::to_string(count), seed);
  for (int i = 1; i < argc; ++i) {
    for (const auto& file : std::filesystem::directory_iterator(argv[i])) {
      Run(file.path(), test::ReadFile(file.path()));
    }
  }
  printf("%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
