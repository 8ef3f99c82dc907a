#include "common/luma_histogram.h"

namespace noxel::tool {

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
  double same[kLevels];
  for (int level = 0; level < kLevels; ++level) same[level] = level;
  return meanLevelAfter(histogram, same);
}

double meanLevelAfter(const Histogram& histogram, const double (&curve)[kLevels]) {
  const double mass = histogramMass(histogram);
  double sum = 0.0;
  for (int level = 0; level < kLevels; ++level) sum += curve[level] * histogram.bins[level];
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

}  // namespace noxel::tool
