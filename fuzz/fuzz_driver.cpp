// Runs a fuzz target without a fuzzing engine: the vectors of tests/data as seeds, then seeded
// mutations of them. Arguments: kind, number of mutations, and optionally the seed of the
// mutations, or "@" and a file, which is run alone. A crash leaves kind, seed and number of the
// input in the output; the input then joins the vectors.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "support/vectors.h"
#include "support/wait.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr unsigned kDefaultSeed = 1;
constexpr size_t kMaxSize = 1 << 16;

std::string Text(const std::string& hex) {
  const test::Bytes bytes = test::ParseHex(hex);
  return {bytes.begin(), bytes.end()};
}

std::string EventsOf(const std::string& steps) {
  std::string events;
  for (const std::string& step : test::SplitTrimmed(steps, ';')) {
    if (step.rfind("event ", 0) == 0) events += Text(step.substr(6));
  }
  return events;
}

// What a kind of target reads in each vector of its files.
struct Seeds {
  std::vector<std::string> files;
  std::function<std::string(const std::vector<std::string>& fields)> of;
};

const std::map<std::string, Seeds> kSeeds = {
    {"framer",
     {{"h4_packets.txt", "h4_streams.txt", "h4_garbage.txt"},
      // A stream has its packets, or its log, behind it: only a packet is its type and its bytes.
      [](const auto& f) {
        return f.size() == 2 && f[0].size() == 2 ? Text(f[0] + " " + f[1]) : Text(f[0]);
      }}},
    {"flow_control", {{"flow_control.txt"}, [](const auto& f) { return EventsOf(f[0]); }}},
    {"config", {{"config.txt"}, [](const auto& f) { return test::ParseText(f[0]).value_or(""); }}},
    {"firmware", {{"firmware.txt"}, [](const auto& f) { return f[2] == "-" ? "" : Text(f[2]); }}},
    {"co_processor", {{"qvr_messages.txt"}, [](const auto& f) { return Text(f[0]); }}},
};

std::vector<std::string> LoadCorpus(const std::string& kind) {
  std::vector<std::string> corpus;
  for (const std::string& file : kSeeds.at(kind).files) {
    for (const test::Vector& v : test::LoadVectors(file)) {
      corpus.push_back(kSeeds.at(kind).of(v.fields));
    }
  }
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
    fprintf(stderr, "usage: %s KIND COUNT [SEED | @FILE]\n", argv[0]);
    return 2;
  }
  if (argc > 3 && argv[3][0] == '@') {
    Run(test::ReadFile(argv[3] + 1));
    return 0;
  }
  const unsigned seed =
      argc > 3 ? static_cast<unsigned>(strtoul(argv[3], nullptr, 10)) : kDefaultSeed;
  const std::vector<std::string> corpus = LoadCorpus(argv[1]);
  printf("%s, seed: %u, corpus: %zu\n", argv[1], seed, corpus.size());
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
