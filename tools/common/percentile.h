#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

namespace noxel::tool {

// Nearest rank. 0 without samples.
inline double percentile(std::vector<double> samples, double percent) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const double rank = std::ceil(percent / 100 * static_cast<double>(samples.size()));
  return samples[static_cast<size_t>(std::max(rank, 1.0)) - 1];
}

}  // namespace noxel::tool
