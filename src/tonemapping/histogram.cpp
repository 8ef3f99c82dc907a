#include "tonemapping/histogram.h"

#include <algorithm>

namespace noxel {
namespace {

// Mirrors a level at most kLevels outside 0..255.
int mirrored(int level) {
  if (level < 0) return -1 - level;
  if (level >= kLevels) return 2 * kLevels - 1 - level;
  return level;
}

// Mirroring is its own inverse, so that gathering from mirrored levels equals spreading to them.
Histogram boxFiltered(const Histogram& histogram, int radius) {
  Histogram result;
  for (int level = 0; level < kLevels; ++level) {
    double sum = 0.0;
    for (int offset = -radius; offset <= radius; ++offset) sum += histogram.bins[mirrored(level + offset)];
    result.bins[level] = sum / (2 * radius + 1);
  }
  return result;
}

}  // namespace

double histogramMass(const Histogram& histogram) {
  double mass = 0.0;
  for (const double bin : histogram.bins) mass += bin;
  return mass;
}

void smoothHistogram(const Histogram& histogram, int radius, Histogram* smoothed) {
  const int limited = std::clamp(radius, 0, kLevels - 1);
  *smoothed = boxFiltered(boxFiltered(histogram, limited), limited);
}

}  // namespace noxel
