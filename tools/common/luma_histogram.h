// Histograms of 8-bit luma.
#pragma once

#include <cstddef>
#include <cstdint>

namespace noxel::tool {

constexpr int kLevels = 256;

// Pixels per level.
struct Histogram {
  double bins[kLevels] = {};
};

// Adds the width * height samples of a plane, rows `stride` bytes apart.
void addPlane(const uint8_t* plane, int width, int height, ptrdiff_t stride, Histogram* histogram);

void addHistogram(const Histogram& more, Histogram* histogram);

double histogramMass(const Histogram& histogram);  // in pixels

// 0..255; 0 without pixels.
double meanLevel(const Histogram& histogram);
double meanLevelAfter(const Histogram& histogram, const double (&curve)[kLevels]);  // curve: level out by level in

// The lowest level with at least `share` (above 0, at most 1) of the pixels at or below it; 0 without pixels.
int levelAtShare(const Histogram& histogram, double share);

}  // namespace noxel::tool
