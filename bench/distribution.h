#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace bench {

// The percentiles of a sample of times. -1 each for an empty one.
class Distribution {
 public:
  static constexpr std::array<double, 14> kPercents = {1,  5,  10, 20, 30, 40, 50,
                                                       60, 70, 80, 90, 95, 99, 99.9};

  Distribution() { values_.fill(-1); }
  explicit Distribution(std::vector<double> sample);
  // Of each percentile the median of the runs.
  static Distribution MedianOf(const std::vector<Distribution>& runs);

  // percent: one of kPercents.
  double At(double percent) const;

 private:
  std::array<double, kPercents.size()> values_;
};

double MedianOf(std::vector<double> values);

}  // namespace bench
