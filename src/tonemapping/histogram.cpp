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

void addPlane(const uint8_t* plane, int width, int height, ptrdiff_t stride, Histogram* histogram) {
  for (int y = 0; y < height; ++y) {
    const uint8_t* row = plane + y * stride;
    for (int x = 0; x < width; ++x) histogram->bins[row[x]] += 1.0;
  }
}

void addHistogram(const Histogram& more, Histogram* histogram) {
  for (int level = 0; level < kLevels; ++level) histogram->bins[level] += more.bins[level];
}

double histogramMass(const Histogram& histogram) {
  double mass = 0.0;
  for (const double bin : histogram.bins) mass += bin;
  return mass;
}

double meanLevel(const Histogram& histogram) {
  const double mass = histogramMass(histogram);
  double sum = 0.0;
  for (int level = 0; level < kLevels; ++level) sum += level * histogram.bins[level];
  return mass > 0.0 ? sum / mass : 0.0;
}

int levelAtShare(const Histogram& histogram, double share) {
  const double wanted = share * histogramMass(histogram);
  double upTo = 0.0;
  for (int level = 0; level < kLevels; ++level) {
    upTo += histogram.bins[level];
    if (upTo >= wanted) return level;
  }
  return kLevels - 1;
}

void smoothHistogram(const Histogram& histogram, int radius, Histogram* smoothed) {
  const int limited = std::clamp(radius, 0, kLevels - 1);
  *smoothed = boxFiltered(boxFiltered(histogram, limited), limited);
}

}  // namespace noxel
