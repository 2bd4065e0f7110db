#include "distribution.h"

#include <algorithm>
#include <cstdlib>

namespace bench {
namespace {

double Percentile(const std::vector<double>& sorted, double percent) {
  return sorted[static_cast<size_t>(percent / 100 * static_cast<double>(sorted.size() - 1))];
}

}  // namespace

double MedianOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? -1 : Percentile(values, 50);
}

Distribution::Distribution(std::vector<double> sample) : Distribution() {
  std::sort(sample.begin(), sample.end());
  if (sample.empty()) return;
  for (size_t i = 0; i < values_.size(); ++i) values_[i] = Percentile(sample, kPercents[i]);
}

Distribution Distribution::MedianOf(const std::vector<Distribution>& runs) {
  Distribution all;
  for (size_t i = 0; i < all.values_.size(); ++i) {
    std::vector<double> values;
    values.reserve(runs.size());
    for (const Distribution& run : runs) values.push_back(run.values_[i]);
    all.values_[i] = bench::MedianOf(std::move(values));
  }
  return all;
}

double Distribution::At(double percent) const {
  for (size_t i = 0; i < values_.size(); ++i) {
    if (kPercents[i] == percent) return values_[i];
  }
  abort();
}

}  // namespace bench
