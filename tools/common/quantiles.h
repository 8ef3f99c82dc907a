// Percentiles of any number of samples in bounded memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace noxel::tool {

// Of samples that are not negative, such as milliseconds. Nearest rank: exact for the first kExact samples; with more they are
// counted in bins, each 1.01 times as wide as the one before, and percentiles are within 0.5 %. At most 40 KB.
class Quantiles {
 public:
  static constexpr size_t kExact = 4096;

  void add(double sample);
  double percentile(double percent) const;  // 0 without samples
  size_t count() const { return count_; }
  double sum() const { return sum_; }
  double max() const { return max_; }

 private:
  static size_t binOf(double sample);
  static double centreOf(size_t bin);

  size_t count_ = 0;
  double sum_ = 0;
  double max_ = 0;
  std::vector<double> samples_;  // until there are more than kExact
  std::vector<uint32_t> bins_;   // from then on
};

}  // namespace noxel::tool
