// Runs a fuzz target without a fuzzing engine: every file of the corpus, then seeded mutations of
// them. Arguments: corpus folder, number of mutations, and optionally the
// seed. A crash leaves the seed and the number
// of the input in the output; the input then joins the corpus.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "support/wait.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr unsigned kDefaultSeed = 1;
constexpr size_t kMaxSize = 1 << 16;

std::vector<std::string> LoadCorpus(const char* folder) {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.is_regular_file()) paths.push_back(entry.path().string());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> corpus;
  for (const std::string& path : paths) corpus.push_back(test::ReadFile(path));
  return corpus;
}

void Run(const std::string& input) {
  // An allocation of exactly this size, so that a read behind the end is seen.
  const std::vector<uint8_t> bytes(input.begin(), input.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

std::string Mutated(const std::vector<std::string>& corpus, std::mt19937& random) {
  const auto below = [&](size_t n) { return static_cast<size_t>(random() % n); };
  std::string input = corpus[below(corpus.size())];
  for (size_t i = 1 + below(8); i > 0; --i) {
    const size_t at = below(input.size() + 1);
    const size_t length = std::min(input.size() - at, 1 + below(16));
    const std::string& other = corpus[below(corpus.size())];
    switch (below(6)) {
      case 0:
        input.insert(at, 1 + below(4), static_cast<char>(random()));
        break;
      case 1:
        input.erase(at, length);
        break;
      case 2:
        if (at < input.size()) input[at] = static_cast<char>(random());
        break;
      case 3:
        if (at < input.size()) input[at] ^= static_cast<char>(1 << below(8));
        break;
      case 4:
        input.insert(at, input.substr(at, length));
        break;
      default:
        input = input.substr(0, at) + other.substr(below(other.size() + 1));
    }
  }
  input.resize(std::min(input.size(), kMaxSize));
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s CORPUS COUNT [SEED]\n", argv[0]);
    return 2;
  }
  const unsigned seed =
      argc > 3 ? static_cast<unsigned>(strtoul(argv[3], nullptr, 10)) : kDefaultSeed;
  const std::vector<std::string> corpus = LoadCorpus(argv[1]);
  if (corpus.empty()) {
    fprintf(stderr, "%s: no corpus\n", argv[1]);
    return 2;
  }
  printf("seed: %u, corpus: %zu\n", seed, corpus.size());
  const int count = test::Count("mutated inputs", atoi(argv[2]));
  fflush(stdout);
  for (const std::string& input : corpus) Run(input);
  std::mt19937 random(seed);
  for (int i = 0; i < count; ++i) {
    if (i % 10000 == 0) {
      printf("input %d\n", i);
      fflush(stdout);
    }
    Run(Mutated(corpus, random));
  }
  return 0;
}
