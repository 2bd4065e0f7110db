// Runs a fuzz target without a fuzzing engine: the vectors of tests/data as seeds, then seeded
// mutations of them. Arguments: number of mutations, files. A crash leaves the number of the input,
// to the nearest 10000, in the output; the input then joins the vectors.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/vectors.h"
#include "support/wait.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using test::Bytes;

constexpr size_t kMaxSize = 1 << 16;

// The first fields: bytes, or steps, of which the events are taken.
void AddSeeds(const std::string& file, std::vector<std::string>* corpus) {
  for (const test::Vector& vector : test::LoadVectors(file)) {
    Bytes seed;
    for (const std::string& step : test::SplitTrimmed(vector.fields[0], ';')) {
      const bool is_event = step.rfind("event ", 0) == 0;
      if (!is_event && step.find_first_not_of("0123456789ABCDEF* ") != std::string::npos) continue;
      seed = test::Concat(seed, test::ParseHex(is_event ? "04 " + step.substr(6) : step));
    }
    corpus->emplace_back(seed.begin(), seed.end());
  }
}

void Run(const std::string& input) {
  // An allocation of exactly this size, so that a read behind the end is seen.
  const Bytes bytes(input.begin(), input.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

std::string Mutated(const std::vector<std::string>& corpus, std::mt19937& random) {
  const auto below = [&](size_t n) { return static_cast<size_t>(random() % n); };
  std::string input = corpus[below(corpus.size())];
  for (size_t i = 1 + below(8); i > 0; --i) {
    const size_t at = below(input.size() + 1);
    const std::string& other = corpus[below(corpus.size())];
    switch (below(4)) {
      case 0:
        input.insert(at, 1 + below(4), static_cast<char>(random()));
        break;
      case 1:
        input.erase(at, 1 + below(16));
        break;
      case 2:
        if (at < input.size()) input[at] ^= static_cast<char>(1 << below(8));
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
    fprintf(stderr, "usage: %s COUNT FILE...\n", argv[0]);
    return 2;
  }
  std::vector<std::string> corpus;
  for (int i = 2; i < argc; ++i) AddSeeds(argv[i], &corpus);
  for (const std::string& input : corpus) Run(input);
  const int count = test::Count("mutated inputs", atoi(argv[1]));
  std::mt19937 random(1);
  for (int i = 0; i < count; ++i) {
    if (i % 10000 == 0) {
      printf("input %d of %zu seeds\n", i, corpus.size());
      fflush(stdout);
    }
    Run(Mutated(corpus, random));
  }
  return 0;
}
